// What state each machine is in, and how status and report tell it.
#include <nlohmann/json.hpp>

#include "overhub/store/fleet_state.h"
#include "overhub/store/setting_place.h"
#include "tests/overhub/overhub_fixture.h"
#include "tests/overhub/store_fixture.h"

namespace {

constexpr std::int64_t kSilent = 2700;

class FleetStates : public testing::TestWithParam<EngineKind> {
 protected:
  FleetStatus fleet() const {
    FleetStatus found;
    const CWmError error = hub_.one().database().read([&](soci::session& session) -> CWmError {
      std::vector<Client> clients = allClients(session);
      std::sort(clients.begin(), clients.end(),
                [](const Client& a, const Client& b) { return a.name < b.name; });
      found = fleetStatus(session, std::move(clients), hub_.now(), kSilent);
      return {};
    });
    EXPECT_STREQ(error.AsString(), "");
    return found;
  }
  // "a:pending b:current", for each machine by name.
  std::string states() const {
    std::string text;
    for (const MachineStatus& machine : fleet().machines)
      text += (text.empty() ? "" : " ") + machine.client.name + ":" + stateName(machine.state);
    return text;
  }
  MachineStatus machine(const std::string& name) const {
    for (MachineStatus& each : fleet().machines)
      if (each.client.name == name) return each;
    ADD_FAILURE() << name;
    return {};
  }
  void set(const std::string& scope, const std::string& value) {
    ChangeSet changes;
    changes.put(settingOf(scope, recordFor("~/A", "nB", value)));
    EXPECT_EQ(hub_.change(changes), "");
  }
  void member(const std::string& group, const std::string& name, bool isMember) {
    ChangeSet changes;
    changes.members.push_back({{group, name}, isMember});
    EXPECT_EQ(hub_.change(changes), "");
  }
  void pass(const std::string& name, std::int64_t id, std::int64_t status = OBGui::kTaskSuccess) const {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), name, id, out).AsString(), "");
    EXPECT_STREQ(acknowledge(hub_.two(), name, out.number, id, status).AsString(), "");
  }

  TestStore hub_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Engines, FleetStates, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

// Of several things that are true of a machine, one is its state; and it says since when, and why.
TEST_P(FleetStates, EachMachineHasOneWithItsReason) {
  const std::int64_t start = hub_.now();
  const std::int64_t changed = start + 100;
  const std::int64_t now = start + 10000;
  struct Case {
    std::string contact;  // what the store knows of it, beside that it was seen just now with all applied
    FleetState state;
    std::int64_t since;
    std::string why;
  };
  const std::string lastSeen = "last_seen = " + std::to_string(now - kSilent);
  const std::string longAgo = "last_seen = " + std::to_string(now - kSilent - 1);
  const Case cases[] = {
      {"", FleetState::current, 0, ""},
      {lastSeen, FleetState::current, 0, ""},
      {"last_seen = 0, proven_revision = 0", FleetState::never, start,
       "it has not called since it was added"},
      {"proven_revision = proven_revision - 1, handed_revision = 1", FleetState::pending, changed,
       "revision 20 waits for its next pass"},
      {"proven_revision = proven_revision - 1", FleetState::pending, changed,
       "revision 20 was handed to it and is not acknowledged as applied"},
      {"proven_revision = 0, outcome = 0", FleetState::pending, start,
       "revision 20 was handed to it and is not acknowledged as applied"},
      {"is_cache_unknown = 1", FleetState::pending, 0, "it gets all of it again"},
      {"outcome = 1, outcome_since = 7", FleetState::failed, 7, "its newest acknowledgement says: failed"},
      {"proven_revision = 1, refusal = 'no', refused_since = 8", FleetState::failed, 8, "refused: no"},
      {"outcome = 1, outcome_since = 7, refusal = 'no', refused_since = 8", FleetState::failed, 8,
       "refused: no"},
      {longAgo, FleetState::silent, now - kSilent - 1, "not seen for longer than 45 min"},
      {longAgo + ", outcome = 1, proven_revision = 1, handed_revision = 1", FleetState::silent,
       now - kSilent - 1,
       "not seen for longer than 45 min; before, its newest acknowledgement says: failed; revision 20 waits "
       "for its next pass"}};
  std::vector<std::int64_t> ids;
  for (std::size_t i = 0; i < std::size(cases); ++i) ids.push_back(hub_.add("pc" + std::to_string(10 + i)));
  hub_.setTime(changed);
  while (hub_.result.revision < 20) set(kAllScope, std::to_string(hub_.result.revision));
  hub_.setTime(now);
  const CWmError error = hub_.one().database().write([&](soci::session& session) -> CWmError {
    session << "UPDATE contacts SET last_seen = " << now << ", outcome = 3, proven_revision = 20,"
            << " handed_revision = 20";
    for (std::size_t i = 0; i < ids.size(); ++i)
      if (!cases[i].contact.empty())
        session << "UPDATE contacts SET " << cases[i].contact << " WHERE client = " << ids[i];
    return {};
  });
  ASSERT_STREQ(error.AsString(), "");
  const FleetStatus found = fleet();
  EXPECT_EQ(found.revision, 20);
  EXPECT_EQ(found.oldestPending, start);
  ASSERT_EQ(found.machines.size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const MachineStatus& is = found.machines[i];
    EXPECT_STREQ(stateName(is.state), stateName(cases[i].state)) << cases[i].contact;
    EXPECT_EQ(is.since, cases[i].since) << cases[i].contact;
    EXPECT_EQ(is.why, cases[i].why) << cases[i].contact;
    EXPECT_EQ(is.newest, 20);
  }
}

// A machine waits for what changes something for it, and for nothing else.
TEST_P(FleetStates, ChangesAreOfConcernToThoseTheyReach) {
  const std::int64_t a = hub_.add("a");
  const std::int64_t b = hub_.add("b");
  EXPECT_EQ(states(), "a:never b:never");
  ChangeSet group;
  group.groups.push_back({"g", 1});
  group.members.push_back({{"g", "a"}, true});
  ASSERT_EQ(hub_.change(group), "");
  const auto passes = [&] {
    pass("a", a);
    pass("b", b);
    EXPECT_EQ(states(), "a:current b:current");
  };
  passes();
  EXPECT_EQ(machine("a").groups, std::vector<std::string>{"g"});
  EXPECT_TRUE(machine("b").groups.empty());
  const std::pair<std::function<void()>, const char*> changes[] = {
      {[&] { set(kAllScope, "1"); }, "a:pending b:pending"},
      {[&] { set(groupScope("g"), "2"); }, "a:pending b:current"},
      {[&] { set(machineScope(b), "3"); }, "a:current b:pending"},
      {[&] { set(kStaticScope, "4"); }, "a:current b:current"},
      {[&] { member("g", "b", true); }, "a:current b:pending"},
      {[&] { member("g", "[b]", true); }, "a:current b:current"},
      {[&] { member("g", "a", false); }, "a:pending b:current"},
      {[&] { set(groupScope("g"), "5"); }, "a:current b:pending"}};
  for (const auto& [change, expected] : changes) {
    change();
    EXPECT_EQ(states(), expected);
    passes();
  }
}

// One from which everything is withdrawn waits until it has given all back, whatever is set meanwhile.
TEST_P(FleetStates, WhoIsToBeRemovedWaitsUntilItIsClean) {
  const std::int64_t a = hub_.add("a");
  const std::int64_t b = hub_.add("b");
  const auto passes = [&] {
    pass("a", a);
    pass("b", b);
  };
  set(kAllScope, "1");
  passes();
  passes();
  const auto withdraw = [&](bool isWithdrawn) {
    ChangeSet changes;
    changes.withdrawals.push_back({a, isWithdrawn});
    EXPECT_EQ(hub_.change(changes), "");
  };
  withdraw(true);
  EXPECT_EQ(states(), "a:pending b:current");
  EXPECT_EQ(machine("a").why, "everything is withdrawn from it, which takes two applied passes");
  set(kAllScope, "2");
  passes();
  EXPECT_EQ(states(), "a:pending b:current");
  EXPECT_EQ(machine("a").why, "everything is withdrawn from it, which takes one more applied pass");
  set(kAllScope, "3");
  EXPECT_EQ(fleet().countWithdrawn(), 1U);
  EXPECT_EQ(fleet().countClean(), 0U);
  passes();
  EXPECT_EQ(states(), "a:current b:current");
  EXPECT_EQ(fleet().countClean(), 1U);
  hub_.resend(a);
  EXPECT_EQ(states(), "a:pending b:current");
  withdraw(false);
  passes();
  EXPECT_EQ(states(), "a:pending b:current") << "it gets all of it again";
  EXPECT_EQ(fleet().countWithdrawn(), 0U);
}

// Since when counts from the oldest change that a machine lacks, and from the first of failures in a row.
TEST_P(FleetStates, BeginWithWhatIsOldest) {
  const std::int64_t start = hub_.now();
  const std::int64_t id = hub_.add("a");
  set(machineScope(id), "0");
  pass("a", id);
  EXPECT_EQ(fleet().oldestPending, 0);
  const auto later = [&](std::int64_t seconds) { hub_.setTime(start + seconds); };
  later(10);
  set(machineScope(id), "1");
  later(20);
  ChangeSet gone;
  gone.withdraw(machineScope(id), {settingPlace("~/A"), "nB", false});
  ASSERT_EQ(hub_.change(gone), "");
  later(30);
  set(kAllScope, "2");
  later(40);
  EXPECT_EQ(machine("a").since, start + 10);
  EXPECT_EQ(fleet().oldestPending, start + 10);
  pass("a", id);
  gone.settings.clear();
  gone.withdraw(kAllScope, {settingPlace("~/A"), "nB", false});
  ASSERT_EQ(hub_.change(gone), "");
  later(45);
  set(kAllScope, "3");
  EXPECT_EQ(machine("a").since, start + 40) << "something was taken out first";

  for (const std::int64_t second : {50, 60}) {
    later(second);
    pass("a", id, OBGui::kTaskFailed);
    EXPECT_EQ(machine("a").since, start + 50);
  }
  // A wrong id is refused, but it was somebody with the machine's key who asked.
  for (const std::int64_t second : {70 + kSilent, 80 + kSilent}) {
    later(second);
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), "a", id + 1, out).AsString(), "");
    const MachineStatus refused = machine("a");
    EXPECT_STREQ(stateName(refused.state), "failed");
    EXPECT_EQ(refused.since, start + 70 + kSilent);
    EXPECT_EQ(refused.why.rfind("refused: unknown client id", 0), 0U) << refused.why;
  }
  pass("a", id);
  EXPECT_EQ(states(), "a:current");

  // What has acknowledged nothing yet lacks all since it was added, whatever came later.
  const std::int64_t added = hub_.now();
  hub_.add("b");
  later(90 + kSilent);
  ChangeSet group;
  group.groups.push_back({"g", 1});
  group.members.push_back({{"g", "b"}, true});
  ASSERT_EQ(hub_.change(group), "");
  std::int64_t proving = 0;
  EXPECT_STREQ(noteAttached(hub_.one(), "b", "10.0.0.1", proving).AsString(), "");
  EXPECT_EQ(machine("b").since, added);
}

class StatusCommand : public OverhubTest {
 protected:
  // Machines by their states: web-2 and web-10 pending, the first of them by its refusal failed, and one that
  // has never called.
  StatusCommand() {
    for (const char* const name : {"web-10", "web-2", "db", "new"}) expectOk({"add-client", name});
    expectOk({"add-group", "web", "--number", "5"});
    expectOk({"join-group", "web", "web-*"});
    expectOk({"set", "@all", "~/A", "nB", "1", "--why", "<b>\"why\" & how</b>"});
    const std::string now = std::to_string(std::time(nullptr));
    meddle("UPDATE contacts SET last_seen = " + now +
           ", outcome = 3, proven_revision = 100 WHERE client <> "
           "(SELECT id FROM clients WHERE name = 'new')");
    meddle(
        "UPDATE contacts SET proven_revision = 6 WHERE client IN (SELECT id FROM clients WHERE name LIKE "
        "'web%')");
  }
  void refuse(const std::string& client, const std::string& why) const {
    meddle("UPDATE contacts SET refusal = '" + why +
           "', refused_since = " + std::to_string(std::time(nullptr) - 7200) +
           " WHERE client = (SELECT id FROM clients WHERE name = '" + client + "')");
  }
  // The names in the table, in their order.
  std::string listed(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "status");
    arguments.emplace_back("--json");
    const auto list = nlohmann::json::parse(overhub(arguments).out);
    std::string names;
    for (const auto& machine : list["machines"])
      names += (names.empty() ? "" : " ") + machine["name"].get<std::string>();
    return names;
  }
};

TEST_F(StatusCommand, ListsThoseAskedForAndSaysWhetherAllAreCurrent) {
  refuse("web-2", "no");
  EXPECT_EQ(listed({}), "new web-2 web-10");
  EXPECT_EQ(listed({"--all"}), "db new web-2 web-10");
  EXPECT_EQ(listed({"--current"}), "db");
  EXPECT_EQ(listed({"--pending"}), "web-10");
  EXPECT_EQ(listed({"--failed", "--never"}), "new web-2");
  EXPECT_EQ(listed({"--silent"}), "");
  EXPECT_EQ(listed({"@web", "--all"}), "web-2 web-10");
  const auto status = overhub({"status", "@web"});
  expectOut(status, 6,
            {"2 machines at revision 7: 1 pending, 1 failed\n\nNAME    STATE    SINCE     LAST SEEN",
             "\nweb-2   failed   2 h ago   ", "6       7  web     refused: no\nweb-10  pending  "});
  expectOut(overhub({"status", "db"}), 0, {"1 machine at revision 7: 1 current\n"});
  EXPECT_EQ(overhub({"status", "db", "--prometheus"}).exitCode, 0);
  EXPECT_EQ(overhub({"status", "--prometheus"}).exitCode, 6);
  expectErr(overhub({"status", "nobody"}), 1, {"there is no client \"nobody\""});
  for (const char* const bad : {"--period=0", "--silent-after=0", "--json --prometheus"})
    EXPECT_EQ(shell(std::string("\"$OVERHUB\" status ") + bad).exitCode, 2) << bad;

  meddle("UPDATE contacts SET last_seen = last_seen - 100 WHERE last_seen <> 0");
  EXPECT_EQ(listed({"--silent", "--period", "30"}), "db web-2 web-10") << "three periods without one";
  EXPECT_EQ(listed({"--silent", "--period", "30", "--silent-after", "60"}), "");
}

// The shapes that programs rely on.
TEST_F(StatusCommand, TellsProgramsWhatItTellsPeople) {
  refuse("web-2", "a \"\\\nb\x1b");
  const auto list = nlohmann::json::parse(overhub({"status", "--json"}).out);
  std::string facts;
  for (const char* const key :
       {"revision", "clients", "current", "pending", "failed", "silent", "never", "withdrawn"})
    facts += std::string(key) + " " + list[key].dump() + " ";
  EXPECT_EQ(facts, "revision 7 clients 4 current 1 pending 1 failed 1 silent 0 never 1 withdrawn 0 ");
  EXPECT_TRUE(list["time"].is_string() && list["oldestPending"].is_string());
  const auto& machine = list["machines"][1];
  EXPECT_EQ(machine["name"].get<std::string>() + machine["state"].get<std::string>() +
                machine["hasRevision"].dump() + machine["wantedRevision"].dump() + machine["groups"].dump() +
                machine["withdrawn"].dump() + machine["why"].get<std::string>(),
            "web-2failed67[\"web\"]falserefused: a \"\\\nb\x1b");
  EXPECT_TRUE(machine["since"].is_string() && machine["lastSeen"].is_string());
  EXPECT_FALSE(list["machines"][0].contains("lastSeen"));

  meddle("UPDATE revisions SET time = time - 1000");
  meddle("UPDATE machine_groups SET name = 'w\"\\e' || char(10)");
  meddle("UPDATE members SET machine_group = 'w\"\\e' || char(10)");
  const std::string metrics = overhub({"status", "--prometheus"}).out;
  for (const char* const line :
       {"overhub_clients{state=\"current\"} 1\n", "overhub_clients{state=\"never\"} 1\n",
        "overhub_group_clients{group=\"w\\\"\\\\e\\n\",state=\"failed\"} 1\n", "overhub_clients_known 4\n",
        "overhub_newest_revision 7\n", "\noverhub_oldest_pending_seconds 10"})
    EXPECT_TRUE(contains(metrics, line)) << line << metrics;
}

// What keys each list has; docs/fleet.md tells what they mean.
TEST_F(StatusCommand, ListsHaveTheKeysThatAreDocumented) {
  meddle("INSERT INTO acknowledgements (client, number, time, named_id, status) VALUES (3, 1, 5, 3, 1)");
  meddle("UPDATE contacts SET outcome_time = 5 WHERE client = 3");
  expectOk({"set", "@all", "~/A", "nC", "1", "--until", "9223372036854775807"});
  expectOk({"join-group", "web", "db"});
  const std::pair<const char*, const char*> lists[] = {
      {"clients", "clients: name id address records lastSeen acknowledgement acknowledged withdrawn"},
      {"groups", "groups: number name machines members"},
      {"acks", "acknowledgements: time client id taskStatus outcome"},
      {"show @all", "settings: path name type value until flags scope revision needsRestart sentence"},
      {"show db --effective",
       "settings: path name type value until flags scope revision needsRestart sentence"},
      {"log '*' '~/A' nC", "revisions: revision time who why command changes"},
      {"status web-10",
       "time revision clients current corrected pending restart refused failed back silent never withdrawn "
       "oldestPending "
       "machines: name state since lastSeen hasRevision wantedRevision groups withdrawn why"}};
  for (const auto& [command, expected] : lists) {
    const auto list =
        nlohmann::ordered_json::parse(shell(std::string("\"$OVERHUB\" ") + command + " --json").out);
    std::string keys;
    for (const auto& [key, value] : list.items()) {
      keys += (keys.empty() ? "" : " ") + key + (value.is_array() ? ":" : "");
      if (!value.is_array()) continue;
      for (const auto& [column, cell] : value.back().items()) keys += " " + column;
    }
    EXPECT_EQ(keys, expected) << command;
  }
  expectOut(overhub({"groups"}), 0, {"web-*, db\n"});
  expectOut(overhub({"groups", "--json"}), 0, {"\"web-*\",\n        \"db\"\n"});
  expectOut(overhub({"show", "@all"}), 0, {"1      9223372036854775807"});
  // A list that has lost its end is no list.
  for (const char* const command : {"status", "status --prometheus", "clients --json", "log", "--help"})
    expectErr(shell(std::string("\"$OVERHUB\" ") + command + " > /dev/full"), 3,
              {"standard output cannot be written"});
}

// Whatever the store holds, the page shows it as text, and no page or list shows a secret.
TEST_F(StatusCommand, HostileTextsStayTextsAndSecretsHidden) {
  const std::string evil = "<img src=x onerror=alert(1)>\"'&";
  refuse("web-2", "<i>\x1b[31m</i>");
  expectOk({"set", "@web", "~/P" + evil, "n<u>", evil});
  ASSERT_EQ(shell("printf canary-7731 | \"$OVERHUB\" set @all '~/Proxy' sPW --secret").exitCode, 0);
  meddle("UPDATE clients SET name = 'web-<script>1</script>' WHERE name = 'web-10'");
  meddle("UPDATE machine_groups SET name = '<s>g</s>'");
  meddle("UPDATE members SET machine_group = '<s>g</s>'");
  writeFile(
      data_ + "/definitions.json",
      R"({"settings": [{"path": "~/A", "name": "nB", "kind": "number", "sentence": "The <em>B</em>"}]})");
  const std::string file = dir_ / "page.html";
  writeFile(file, "old");
  expectOut(overhub({"report", file}), 0, {file});
  EXPECT_EQ(modeOf(file), 0600U);
  const std::string page = readFile(file);
  for (const char* const tag : {"<img", "<u>", "<b>\"", "<script", "<s>", "<i>", "<em>", "\x1b"})
    EXPECT_FALSE(contains(page, tag)) << tag;
  for (const char* const shown :
       {"&lt;img src=x onerror=alert(1)&gt;&quot;&#39;&amp;</td>", "n&lt;u&gt;", "&lt;s&gt;g&lt;/s&gt;",
        "web-&lt;script&gt;1", "refused: &lt;i&gt;", "&lt;b&gt;&quot;why&quot; &amp; how", "The &lt;em&gt;B",
        "\"Name\">sPW</td><td data-title=\"Value\">********</td>"})
    EXPECT_TRUE(contains(page, shown)) << shown;
  EXPECT_FALSE(contains(overhub({"status", "--all"}).out, "\x1b"));
  for (const char* const form : {"", "--json", "--prometheus"})
    EXPECT_FALSE(contains(shell(std::string("\"$OVERHUB\" status --all ") + form).out, "canary-7731"));
  EXPECT_FALSE(contains(page, "canary-7731"));

  expectErr(overhub({"report", dir_ / "no/such/folder.html"}), 3, {"no/such/folder.html"});
  writeFile(data_ + "/definitions.json", "{");
  EXPECT_EQ(overhub({"report", file}).exitCode, 3);
  EXPECT_EQ(readFile(file), page);
}

}  // namespace
