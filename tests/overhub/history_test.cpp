// What the history tells of changes, and how they are put back.
#include "overhub/store/history.h"

#include <algorithm>

#include "overhub/commands/difference_list.h"
#include "overhub/store/setting_place.h"
#include "overhub/store/undo.h"
#include "tests/overhub/store_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

class History : public testing::TestWithParam<EngineKind> {
 protected:
  History() : hub_(GetParam()) {}

  // Each returns the revision that it made.
  std::int64_t made(const ChangeSet& changes) {
    EXPECT_EQ(hub_.change(changes), "");
    return hub_.result.revision;
  }
  std::int64_t set(const std::string& scope, const OBGui::RegistryKeyInfo& record, std::int64_t until = 0) {
    ChangeSet changes;
    Setting setting = settingOf(scope, record);
    setting.expires = until;
    changes.put(setting);
    return made(changes);
  }
  std::int64_t set(const std::string& scope, const std::string& name, const std::string& value) {
    return set(scope, recordFor("~/Limits", name, value));
  }
  std::int64_t unset(const std::string& scope, const std::string& name) {
    ChangeSet changes;
    changes.withdraw(scope, {"~/Limits", name, false});
    return made(changes);
  }
  std::int64_t group(const std::string& name, std::optional<std::int64_t> number,
                     const std::vector<std::string>& members = {}, bool isMember = true) {
    ChangeSet changes;
    if (!number || *number != 0) changes.groups.push_back({name, number});
    for (const std::string& member : members) changes.members.push_back({{name, member}, isMember});
    return made(changes);
  }
  std::int64_t remove(std::int64_t id) {
    ChangeSet changes;
    changes.removedClients.push_back(id);
    return made(changes);
  }
  std::int64_t withdrawAll(std::int64_t id) {
    ChangeSet changes;
    changes.withdrawals.push_back({id, true});
    return made(changes);
  }
  // Why it is refused, or nothing; what it leaves out is in leftOut_.
  std::string undo(std::int64_t revision, const ChangeNote& note = {}) {
    return hub_.change([&](soci::session& session,
                           ChangeSet& changes) { return buildUndo(session, revision, changes, leftOut_); },
                       note);
  }

  template <class Look>
  void look(const Look& work) const {
    EXPECT_STREQ(hub_.two().database().read(work).AsString(), "");
  }
  std::string linesOf(soci::session& session, const Differences& differences) const {
    std::string text;
    for (const DifferenceRow& row : rowsOf(differences, EverScopeNames(session))) text += lineOf(row) + "\n";
    return text;
  }
  std::string changed(std::int64_t revision) const {
    std::string text;
    look([&](soci::session& session) {
      const auto changes = changesOf(session, revision - 1, revision);
      text = changes.empty() ? "" : linesOf(session, changes.begin()->second);
      return CWmError();
    });
    return text;
  }
  std::string between(std::int64_t from, std::int64_t to) const {
    std::string text;
    look([&](soci::session& session) {
      text = linesOf(session, differencesBetween(session, from, to));
      return CWmError();
    });
    return text;
  }
  // The revisions of which a filter leaves something.
  std::string told(const std::string& target, const std::string& path = "",
                   const std::string& name = "") const {
    std::string numbers;
    look([&](soci::session& session) {
      HistoryFilter filter;
      numbers.clear();
      const CWmError error = target.empty() ? CWmError() : filterFor(session, target, filter);
      if (error.IsError()) numbers = error.AsString();
      if (!path.empty()) filter.place = settingPlace(path);
      filter.name = name;
      if (!error.IsError())
        for (auto& [revision, differences] : changesOf(session, 0, newestRevision(session))) {
          keepOnly(filter, differences);
          if (!differences.isEmpty()) numbers += (numbers.empty() ? "" : " ") + std::to_string(revision);
        }
      return CWmError();
    });
    return numbers;
  }
  bool isHandedNothing(const std::string& client, std::int64_t id) const {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), client, id, out).AsString(), "");
    return std::all_of(out.batch.keys->begin(), out.batch.keys->end(),
                       [](const OBGui::RegistryKeyInfo& key) { return key.deleteFlag == 1; });
  }

  TestStore hub_;
  LeftOut leftOut_;
};

INSTANTIATE_TEST_SUITE_P(Store, History, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

TEST_P(History, TellsEachChangeBeforeAndAfterAndNoSecret) {
  const std::int64_t id = hub_.add("pc1");
  const std::string mine = machineScope(id);
  EXPECT_EQ(changed(hub_.result.revision), "pc1: client: (none) -> client " + std::to_string(id) + "\n");
  const std::int64_t first = set(mine, "nMAX", "10");
  EXPECT_EQ(changed(first), "pc1: ~/Limits nMAX: (not set) -> 10\n");
  EXPECT_EQ(changed(set(mine, recordFor("Limits", "nMAX", "20"), 1'900'000'060)),
            "pc1: ~/Limits nMAX: 10 -> 20 until 2030-03-17T17:47:40Z (as Limits)\n");
  EXPECT_EQ(changed(unset(mine, "nMAX")), "pc1: ~/Limits nMAX: 20 until 2030-03-17T17:47:40Z -> (not set)\n");
  EXPECT_EQ(changed(set(kAllScope, secretRecord("~/Proxy", "sPW", "canary1"))),
            "@all: ~/Proxy sPW: (not set) -> ********\n");
  EXPECT_EQ(changed(set(kAllScope, secretRecord("~/Proxy", "sPW", "canary2"))),
            "@all: ~/Proxy sPW: ******** -> ******** (set anew)\n");
  set(mine, recordFor("Overhub2", "sSESSIONKEY", "canary3"));
  EXPECT_EQ(changed(hub_.result.revision), "pc1: ~/Overhub2 sSESSIONKEY: (not set) -> ********\n");
  const std::int64_t made = group("berlin", 10, {"pc1", "x\n*"});
  EXPECT_EQ(changed(made),
            "@berlin: group: (none) -> number 10\n@berlin: member pc1: (none) -> member\n"
            "@berlin: member x\\n*: (none) -> member\n");
  EXPECT_EQ(changed(group("berlin", 11)), "@berlin: group: number 10 -> number 11\n");
  EXPECT_EQ(changed(withdrawAll(id)),
            "pc1: client: client " + std::to_string(id) + " -> everything withdrawn\n");
  const std::int64_t last = remove(id);
  const std::string gone = "pc1 (client " + std::to_string(id) + ", removed)";
  EXPECT_EQ(changed(last), "pc1: client: client " + std::to_string(id) + " -> (none)\n" + gone +
                               ": ~/Overhub2 sSESSIONKEY: ******** -> (not set)\n");

  // The net of it, forth and back; what came and went in between is not in it.
  EXPECT_EQ(between(first - 1, made - 4), "") << "set, changed and withdrawn again";
  EXPECT_EQ(between(made - 1, made + 1),
            "@berlin: group: (none) -> number 11\n@berlin: member pc1: (none) -> member\n"
            "@berlin: member x\\n*: (none) -> member\n");
  EXPECT_EQ(between(made, first),
            "@berlin: group: number 10 -> (none)\n@berlin: member pc1: member -> (none)\n"
            "@berlin: member x\\n*: member -> (none)\n@all: ~/Proxy sPW: ******** -> (not set)\n" +
                gone + ": ~/Limits nMAX: (not set) -> 10\n" + gone +
                ": ~/Overhub2 sSESSIONKEY: ******** -> (not set)\n");
}

// Whoever asks about a machine wants to know all that it may have got a value from, also of what is no more.
TEST_P(History, TellsOfATarget) {
  const std::int64_t id = hub_.add("pc1");                   // 1
  hub_.add("db1");                                           // 2
  group("web", 10, {"pc*"});                                 // 3
  group("data", 20, {"db1"});                                // 4
  set(kAllScope, "nMAX", "1");                               // 5
  set(groupScope("web"), "nMAX", "2");                       // 6
  set(groupScope("data"), "nMAX", "3");                      // 7
  set(machineScope(id), "nMIN", "4");                        // 8
  set(kStaticScope, "nMAX", "5");                            // 9
  set(machineScope(id), recordFor("~/Other", "nMIN", "4"));  // 10
  group("web", std::nullopt);                                // 11
  remove(id);                                                // 12
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"", "", "", "1 2 3 4 5 6 7 8 9 10 11 12"},
      {"pc1", "", "", "1 3 5 6 8 10 11 12"},
      {"pc*", "", "", "1 3 5 6 8 10 11 12"},
      {"db1", "", "", "2 4 5 7"},
      {"@web", "", "", "3 6 11"},
      {"@all", "", "", "5"},
      {"@static,@data", "", "", "4 7 9"},
      {"pc1", "Limits//", "", "5 6 8 11 12"},
      {"pc1", "~/Limits", "nMIN", "8 12"},
      {"pc1", "~/Limits", "nMIN_UNTIL", "8 12"},
      {"", "~/Other", "", "10 12"},
      {"pc2", "", "", "there is no client \"pc2\", nor was there one"},
      {"@west", "", "", "there is no group \"west\", nor was there one"},
  };
  for (const auto& [target, path, name, revisions] : cases)
    EXPECT_EQ(told(target, path, name), revisions) << target << " " << path << " " << name;
}

TEST_P(History, PutsARevisionBackUnlessALaterOneHasBeenAtIt) {
  const std::int64_t id = hub_.add("pc1");
  const std::int64_t start = group("web", 10, {"pc1"});
  set(groupScope("web"), secretRecord("~/Proxy", "sPW", "canary"));
  const std::int64_t before = set(groupScope("web"), "nMAX", "1");

  // What one revision did to several things, there and back, and there again.
  const std::int64_t ended = group("web", std::nullopt);
  EXPECT_EQ(undo(ended), "");
  const std::int64_t undone = hub_.result.revision;
  EXPECT_EQ(between(before, undone), "");
  EXPECT_EQ(hub_.result.effects.machines, std::vector<std::string>{"pc1"});
  EXPECT_EQ(undo(undone), "");
  EXPECT_EQ(between(ended, hub_.result.revision), "");
  EXPECT_EQ(undo(hub_.result.revision), "");
  EXPECT_EQ(between(before, hub_.result.revision), "");

  // A later one is named: of the same setting, and of what lies in a group that would go.
  const std::int64_t set1 = set(machineScope(id), "nMIN", "1");
  const std::int64_t set2 = set(machineScope(id), "nMIN", "2");
  const auto names = [](const std::string& text, std::int64_t revision) {
    return text.starts_with("revision " + std::to_string(revision) + " of someone (");
  };
  EXPECT_TRUE(names(undo(set1), set2));
  EXPECT_EQ(undo(set2), "");
  EXPECT_TRUE(names(undo(set1), set2 + 1)) << "the newest one";
  EXPECT_EQ(between(set1, set2 + 1), "");
  const std::int64_t west = group("west", 30);
  const std::int64_t joined = group("west", 0, {"pc1"});
  const std::int64_t said = set(groupScope("west"), "nLOW", "1");
  EXPECT_TRUE(names(undo(west), said));
  const std::int64_t left = group("west", 0, {"pc1"}, false);
  const std::int64_t silent = unset(groupScope("west"), "nLOW");
  const std::int64_t noMore = group("west", std::nullopt);
  EXPECT_TRUE(names(undo(joined), left));
  for (const std::int64_t revision : {left, silent}) EXPECT_TRUE(names(undo(revision), noMore)) << revision;

  // Of several later ones the newest, which would have to be put back first.
  ChangeSet both;
  for (const char* const name : {"nA", "nB"})
    both.put(settingOf(machineScope(id), recordFor("~/Limits", name, "1")));
  const std::int64_t two = made(both);
  set(machineScope(id), "nB", "2");
  const std::int64_t newest = set(machineScope(id), "nA", "2");
  EXPECT_TRUE(names(undo(two), newest));

  // Numbers that were swapped.
  ChangeSet swap;
  swap.groups = {{"web", 20}, {"data", 10}};
  const std::int64_t data = group("data", 20);
  const std::int64_t swapped = made(swap);
  EXPECT_EQ(undo(swapped), "");
  EXPECT_EQ(between(data, hub_.result.revision), "");

  // Clients come and go on their own.
  const std::int64_t machine = set(machineScope(id), "nTOP", "1");
  const std::int64_t unsaid = unset(machineScope(id), "nTOP");
  const std::int64_t gone = remove(id);
  EXPECT_TRUE(names(undo(machine), unsaid));
  EXPECT_TRUE(names(undo(unsaid), gone));
  EXPECT_TRUE(contains(undo(gone), "stay away (pc1)")) << undo(gone);
  EXPECT_TRUE(contains(undo(start - 1), "stay (pc1)")) << undo(start - 1);
  EXPECT_TRUE(contains(undo(9999), "there is no revision 9999"));

  // A dry run writes nothing, what cuts machines off is refused, and nobody may have been faster.
  hub_.add("pc2");
  ChangeNote force;
  force.isForced = true;
  ChangeSet switchOff;
  switchOff.put(settingOf(kAllScope, recordFor("EventManager", "bEnableRegistrySync", "0")));
  EXPECT_EQ(hub_.change(switchOff, force), "");
  const std::int64_t off = hub_.result.revision;
  ChangeNote dry;
  dry.isDryRun = true;
  EXPECT_EQ(undo(off, dry), "");
  EXPECT_EQ(hub_.result.effects.wayBack, std::vector<std::string>{"pc2"});
  EXPECT_EQ(changed(off + 1), "");
  EXPECT_TRUE(contains(undo(off), "--force"));
  force.expected = off - 1;
  EXPECT_TRUE(contains(undo(off, force), "somebody was faster"));
  force.expected = off;
  EXPECT_EQ(undo(off, force), "");
}

// Whoever has looked at a revision is told what of that which he changes was changed since, and by whom;
// what others changed beside it is no hindrance.
TEST_P(History, NobodyIsOvertakenUnawares) {
  const std::int64_t id = hub_.add("pc1");
  const std::int64_t said = set(kAllScope, "nMAX", "1");
  const std::int64_t beside = set(kAllScope, "nMIN", "1");
  const std::int64_t made = group("web", 10, {"pc*"});
  const std::int64_t joined = group("web", 0, {"db*"});
  const std::int64_t added = (hub_.add("pc2"), hub_.result.revision);
  const auto edit = [](const std::string& scope, const std::string& name) {
    ChangeSet changes;
    changes.put(settingOf(scope, recordFor("Limits", name, "9")));
    return changes;
  };
  ChangeSet number;
  number.groups.push_back({"web", 20});
  ChangeSet end;
  end.groups.push_back({"web", std::nullopt});
  const auto member = [](const std::string& pattern, bool isMember) {
    ChangeSet changes;
    changes.members.push_back({{"web", pattern}, isMember});
    return changes;
  };
  ChangeSet withdrawal;
  withdrawal.withdrawals.push_back({id + 1, true});
  ChangeSet removal;
  removal.removedClients.push_back(id + 1);
  const std::tuple<ChangeSet, std::int64_t, std::string> cases[] = {
      {edit(kAllScope, "nMAX"), said, ""},
      {edit(kAllScope, "nMAX"), said - 1, "\"nMAX\" in \"~/Limits\" is 1 for @all now"},
      {edit(kAllScope, "nMIN"), said, "revision " + std::to_string(beside) + " of someone ("},
      {edit(groupScope("web"), "nMAX"), 0, ""},
      {edit(machineScope(id), "nMAX"), 0, ""},
      {number, made, ""},
      {number, made - 1, "group web"},
      {end, joined, ""},
      {end, made, "db* is now in group web"},
      {member("x*", true), made, ""},
      {member("x*", true), made - 1, "group web"},
      {member("db*", false), joined - 1, "revision " + std::to_string(joined) + " of someone ("},
      {member("pc*", false), joined, ""},
      {withdrawal, added, ""},
      {withdrawal, added - 1, "client pc2"},
      {removal, added - 1, "client pc2"},
  };
  ChangeNote note;
  note.isDryRun = true;
  int row = 0;
  for (const auto& [changes, expected, why] : cases) {
    note.expected = expected;
    const std::string refusal = hub_.change(changes, note);
    EXPECT_EQ(refusal.empty(), why.empty()) << row << ": " << refusal;
    EXPECT_TRUE(contains(refusal, why)) << row << ": " << refusal;
    ++row;
  }
}

// A machine from which everything is withdrawn gets removals until two hand-outs in a row were applied, and
// nothing that is set meanwhile; taken back, it gets everything again.
TEST_P(History, AMachineGivesEverythingBack) {
  const std::int64_t id = hub_.add("pc1");
  group("web", 10, {"pc*"});
  set(kAllScope, "nALL", "1");
  set(groupScope("web"), "nWEB", "1");
  set(machineScope(id), "nMINE", "1");
  const auto pass = [&] {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), "pc1", id, out).AsString(), "");
    EXPECT_STREQ(acknowledge(hub_.one(), "pc1", out.number, id, OBGui::kTaskSuccess).AsString(), "");
    std::string text;
    for (const OBGui::RegistryKeyInfo& key : out.batch.keys.get())
      text += (key.deleteFlag == 1 ? " -" : " ") + key.valueName.get();
    return text;
  };
  EXPECT_EQ(pass(), " nALL nMINE nWEB");
  const std::int64_t withdrawn = withdrawAll(id);
  EXPECT_EQ(hub_.result.effects.machines, std::vector<std::string>{"pc1"});
  EXPECT_EQ(hub_.result.effects.values.size(), 3U);
  set(groupScope("web"), "nNEW", "1");
  EXPECT_TRUE(hub_.result.effects.machines.empty());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(pass(), " -nALL -nMINE -nWEB");
  EXPECT_EQ(pass(), "");
  ChangeSet again;
  again.withdrawals.push_back({id, true});
  EXPECT_EQ(hub_.change(again), "");
  EXPECT_TRUE(hub_.result.isNothing);
  EXPECT_EQ(undo(withdrawn), "");
  EXPECT_EQ(pass(), " nALL nMINE nNEW nWEB");
  EXPECT_FALSE(isHandedNothing("pc1", id));
}

}  // namespace
