// What machines are handed: which settings count, what they are told to remove and for how long, and what an
// acknowledgement proves of it.
#include "overhub/store/hand_out.h"

#include <algorithm>

#include "overhub/store/query.h"
#include "overhub/store/setting_place.h"
#include "overhub/store/settings.h"
#include "tests/overhub/simulated_client.h"
#include "tests/overhub/store_fixture.h"

namespace {

class HandOuts : public testing::TestWithParam<EngineKind> {
 protected:
  HandOuts() : hub_(GetParam()), id_(hub_.add("pc1")) {}

  static void expectSays(const std::string& text, const std::string& part, int line = __builtin_LINE()) {
    EXPECT_TRUE(contains(text, part)) << "\"" << text << "\" at line " << line;
  }

  static std::string all(const OBGui::KeyList& keys) {
    std::string text;
    for (const OBGui::RegistryKeyInfo& key : keys) {
      text += text.empty() ? "" : ", ";
      text += (key.deleteFlag == 1    ? "-"
               : key.enabledFlag == 0 ? "!"
                                      : "") +
              key.keyPath.get() + " " + key.valueName.get();
      if (!isToBeRemoved(key)) text += "=" + SimulatedClient::valueIn(key);
    }
    return text;
  }

  std::string set(const std::string& scope, const std::string& path, const std::string& name,
                  const std::string& value, std::int64_t until = 0) {
    return put(scope, recordFor(path, name, value), until);
  }
  std::string put(const std::string& scope, const OBGui::RegistryKeyInfo& record, std::int64_t until = 0,
                  const ChangeNote& note = {}) {
    ChangeSet changes;
    Setting setting = settingOf(scope, record);
    setting.expires = until;
    changes.put(setting);
    return hub_.change(changes, note);
  }
  std::string unset(const std::string& scope, const std::string& path, const std::string& name,
                    bool isKey = false, const ChangeNote& note = {}) {
    ChangeSet changes;
    changes.withdraw(scope, {settingPlace(path), name, isKey});
    return hub_.change(changes, note);
  }
  std::string group(const std::string& name, std::optional<std::int64_t> number,
                    const std::vector<std::string>& members = {}, const ChangeNote& note = {}) {
    ChangeSet changes;
    changes.groups.push_back({name, number});
    for (const std::string& member : members) changes.members.push_back({{name, member}, true});
    return hub_.change(changes, note);
  }
  std::string membership(const std::string& group, const std::string& member, bool isMember) {
    ChangeSet changes;
    changes.members.push_back({{group, member}, isMember});
    return hub_.change(changes);
  }
  std::string mine() const { return machineScope(id_); }

  HandOut ask(const std::string& client, std::int64_t id) const {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), client, id, out).AsString(), "");
    return out;
  }
  // What a session has open at its beginning.
  std::int64_t attach() const {
    std::int64_t proving = -1;
    EXPECT_STREQ(noteAttached(hub_.two(), "pc1", "10.0.0.1", proving).AsString(), "");
    return proving;
  }
  void acknowledgeAs(std::int64_t number, std::int64_t status = OBGui::kTaskSuccess) const {
    EXPECT_STREQ(acknowledge(hub_.two(), "pc1", number, id_, status).AsString(), "");
  }
  // What the next hand-out has in it, which the machine takes and acknowledges as applied.
  std::string pass() {
    HandOut out = ask("pc1", id_);
    EXPECT_EQ(out.refusal, "");
    const std::string text = all(out.batch.keys);
    machine_.apply(out.batch.keys.edit(), hub_.now());
    machine_.keep(out.batch.keys);
    acknowledgeAs(attach());
    return text;
  }
  void passes(int count) {
    for (int n = 0; n < count; ++n) pass();
  }
  bool has(const std::string& key, const std::string& name) const {
    return machine_.registry.contains({key, name});
  }

  TestStore hub_;
  std::int64_t id_;
  SimulatedClient machine_;
};

INSTANTIATE_TEST_SUITE_P(Store, HandOuts, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

// What was withdrawn is sent as a removal until two hand-outs in a row that carried it were acknowledged as
// applied. Each letter is what becomes of one more hand-out, or happens instead of one; below it whether the
// removal is in it.
TEST_P(HandOuts, CarryARemovalUntilTwoInARowWereApplied) {
  struct Case {
    const char* fates;
    const char* carried;
  };
  const Case cases[] = {
      {"aa.", "yyn"},       {"afaa.", "yyyyn"},  // one that failed starts it anew
      {"anaa.", "yyyyn"},                        // and so does one that nobody acknowledged
      {"faa.", "yyyn"},                          //
      {"laa.", "yyyn"},                          // what came after the next hand-out proves neither
      {"ala.", "yyyy"},                          //
      {"dfaa.", "yyyyn"},                        // said twice, it proves once
      {"saa.", "yyyn"},                          // after the static list was asked for
      {"asaa.", "yyyyn"},                        //
      {"oaa.", "yyyn"},                          // from a session that had none
      {"ppp.", "yyyy"},                          // pushes prove nothing
      {"apa.", "yyyn"},                          // and do not come between
      {"paa.", "yyyn"},                          //
      {"ra.", "yyy"},        // what was proven before a cache was doubted is not proof of it
      {"arlaa.", "y-yyyn"},  // nor what was handed out before
  };
  for (const Case& wanted : cases) {
    ASSERT_EQ(set("@all", "~/A", "x", wanted.fates), "");
    passes(2);
    EXPECT_EQ(pass(), "~/A x=" + std::string(wanted.fates));
    ASSERT_EQ(unset("@all", "~/A", "x"), "");
    std::int64_t late = 0;
    std::string carried;
    for (const char* fate = wanted.fates; *fate != '\0'; ++fate) {
      if (*fate == 'r') {  // doubted between a hand-out and its acknowledgement
        const HandOut before = ask("pc1", id_);
        hub_.resend(id_);
        acknowledgeAs(before.number);
        carried += carried.empty() ? "y" : "-";
        continue;
      }
      HandOut out;
      if (*fate == 'p') {
        ASSERT_STREQ(handOutForPush(hub_.two(), "pc1", 0, out).AsString(), "");
        acknowledgeAs(out.number);
        EXPECT_EQ(out.number, 0);
      } else {
        out = ask("pc1", id_);
      }
      const bool isIn =
          std::any_of(out.batch.keys->begin(), out.batch.keys->end(), [](const OBGui::RegistryKeyInfo& key) {
            return key.valueName.get() == "x" && key.deleteFlag == 1;
          });
      carried += isIn ? 'y' : 'n';
      if (late != 0) acknowledgeAs(std::exchange(late, 0));
      switch (*fate) {
        case 'a':
          acknowledgeAs(attach());
          break;
        case 'f':
          acknowledgeAs(attach(), OBGui::kTaskFailed);
          break;
        case 'l':
          late = attach();
          break;
        case 'd':
          acknowledgeAs(out.number);
          acknowledgeAs(out.number);
          break;
        case 's': {
          HandOut list;
          ASSERT_STREQ(handOutStaticList(hub_.two(), "pc1", list).AsString(), "");
          acknowledgeAs(attach());
          break;
        }
        case 'o':
          acknowledgeAs(0);
          break;
        default:;  // nobody acknowledges it
      }
    }
    EXPECT_EQ(carried, wanted.carried) << wanted.fates;
    passes(3);
  }
}

// A push reaches the registry past the hand-outs: what it wrote is taken back as if one had carried it.
TEST_P(HandOuts, APushProvesNothingAndIsOwed) {
  passes(2);
  ASSERT_EQ(set(mine(), "~/A", "x", "1"), "");
  HandOut out;
  ASSERT_STREQ(handOutForPush(hub_.one(), "pc1", 0, out).AsString(), "");
  EXPECT_EQ(all(out.batch.keys), "~/A x=1");
  EXPECT_EQ(hub_.contact(id_).handed, 2);
  ASSERT_EQ(unset(mine(), "~/A", "x"), "");
  EXPECT_EQ(pass(), "-~/A x");
  EXPECT_EQ(pass(), "-~/A x");
  EXPECT_EQ(pass(), "");

  // One that arrives after the machine has proven that it holds nothing of it, and until then nobody else's.
  ASSERT_EQ(set(mine(), "~/A", "x", "2"), "");
  ASSERT_STREQ(handOutForPush(hub_.one(), "pc1", 60, out).AsString(), "");
  ASSERT_EQ(unset(mine(), "~/A", "x"), "");
  passes(2);
  EXPECT_EQ(pass(), "");
  HandOut other;
  expectSays(handOutForPush(hub_.two(), "pc1", 60, other).AsString(), "in 60 s at the latest");
  machine_.apply(out.batch.keys.edit(), hub_.now());
  EXPECT_TRUE(has("~/A", "x"));
  ASSERT_STREQ(notePushed(hub_.one(), "pc1", out).AsString(), "");
  for (int n = 0; n < 2; ++n) EXPECT_EQ(pass(), "-~/A x");
  EXPECT_EQ(pass(), "");
  for (int n = 0; n < 2; ++n) {  // whoever held the lease may have been killed
    ASSERT_STREQ(handOutForPush(hub_.two(), "pc1", 60, other).AsString(), "");
    hub_.setTime(hub_.now() + 60);
  }
}

// An instance's name in a path makes another value of it for the server, and on some machines the same.
TEST_P(HandOuts, OneValueIsNotSetUnderTwoPaths) {
  const char* const absolute = "SOFTWARE/Velmor/I1//A";
  ChangeNote forced;
  forced.isForced = true;
  ASSERT_EQ(set("@all", "~/A", "x", "1"), "");
  ASSERT_EQ(set("@all", "SOFTWARE/Velmor/I1", "x", "2"), "");
  expectSays(set(mine(), absolute, "x", "2"),
             "\"x\" in \"SOFTWARE/Velmor/I1/A\" and in \"~/A\" are one value");
  EXPECT_EQ(set("@all", absolute, "y", "2"), "");
  OBGui::RegistryKeyInfo removal = recordFor(absolute, "x", "");
  removal.deleteFlag = 1;
  EXPECT_EQ(put(mine(), removal), "") << "removals stand before writes";
  ASSERT_EQ(put(mine(), recordFor(absolute, "x", "2"), 0, forced), "");
  EXPECT_EQ(set("@all", "~/A", "x", "3"), "") << "it is so already";
}

// The nearest scope counts: the machine's own, its groups by their numbers, all. What leaves a group or whose
// group is deleted gets what is farther.
TEST_P(HandOuts, MachineCountsOverGroupOverAll) {
  hub_.add("db7");
  ASSERT_EQ(group("pcs", 10, {"pc*"}), "");
  ASSERT_EQ(group("berlin", 20, {"pc1", "db7"}), "");
  for (const char* const name : {"a", "g", "h", "m"}) ASSERT_EQ(set("@all", "~/A", name, "all"), "");
  for (const char* const name : {"g", "h", "m"}) ASSERT_EQ(set("g:pcs", "A//", name, "pcs"), "");
  for (const char* const name : {"h", "m"}) ASSERT_EQ(set("g:berlin", "~/A", name, "berlin"), "");
  ASSERT_EQ(set(mine(), "~A", "m", "mine"), "");
  ASSERT_EQ(group("others", 40, {"PC*", "pc", "c*"}), "");
  ASSERT_EQ(set("g:others", "~/A", "a", "others"), "");
  EXPECT_EQ(pass(), "~/A a=all, A// g=pcs, ~/A h=berlin, ~A m=mine");
  expectSays(group("other", 20), "would both have the number 20");
  ASSERT_EQ(group("berlin", 5), "");
  EXPECT_EQ(pass(), "~/A a=all, A// g=pcs, A// h=pcs, ~A m=mine");
  ASSERT_EQ(group("berlin", 20), "");
  ASSERT_EQ(unset(mine(), "~/A", "m"), "");
  EXPECT_EQ(pass(), "~/A a=all, A// g=pcs, ~/A h=berlin, ~/A m=berlin");
  ASSERT_EQ(membership("berlin", "pc1", false), "");
  EXPECT_EQ(pass(), "~/A a=all, A// g=pcs, A// h=pcs, A// m=pcs");
  ASSERT_EQ(set("g:pcs", "~/B", "only", "1"), "");
  passes(1);
  ASSERT_EQ(group("pcs", std::nullopt), "");
  EXPECT_EQ(pass(), "-~/B only, ~/A a=all, ~/A g=all, ~/A h=all, ~/A m=all");
  // A group of that name that comes later is another one, with nothing of the old.
  ASSERT_EQ(group("pcs", 30, {"pc?"}), "");
  EXPECT_EQ(pass(), "-~/B only, ~/A a=all, ~/A g=all, ~/A h=all, ~/A m=all");
  EXPECT_EQ(all(ask("pc1", id_).batch.keys), "~/A a=all, ~/A g=all, ~/A h=all, ~/A m=all");
}

// A withdrawn sub-key stays with all that is in it; only removing it takes it away.
TEST_P(HandOuts, ASubKeyIsWithdrawnWithoutBeingRemoved) {
  OBGui::RegistryKeyInfo subKey = recordFor("~/A", "Local", "");
  subKey.valueType = std::string("KEY");
  ASSERT_EQ(put("@all", subKey), "");
  ASSERT_EQ(set("@all", "~/A", "x", "1"), "");
  passes(1);
  machine_.registry[{"~/A/Local", "own"}] = "mine";
  ASSERT_EQ(unset("@all", "~/A", "Local", true), "");
  for (int n = 0; n < 2; ++n) {
    const HandOut out = ask("pc1", id_);
    ASSERT_EQ(out.batch.keys->size(), 2U);
    EXPECT_FALSE(isKey(out.batch.keys->front()));
    pass();
    EXPECT_TRUE(has("~/A/Local", "own"));
    EXPECT_TRUE(has("~/A/Local", SimulatedClient::kMarker));
  }
  EXPECT_EQ(machine_.cache.size(), 1U);
  passes(1);
  subKey.deleteFlag = 1;
  ASSERT_EQ(put("@all", subKey), "");
  EXPECT_EQ(pass(), "-~/A Local, ~/A x=1");
  EXPECT_FALSE(has("~/A/Local", "own"));
}

// A value and its end are one: what is nearer hides both, and taking the end away leaves the value. Clients
// end values by name alone, so no removal may carry a time that has passed.
TEST_P(HandOuts, AValueAndItsEndAreOne) {
  const std::int64_t end = hub_.now() + 100;
  const std::string until = std::to_string(end);
  ASSERT_EQ(set("@all", "~/A", "x", "far", end), "");
  EXPECT_EQ(pass(), "~/A x=far, ~/A x_UNTIL=" + until);
  ASSERT_EQ(set(mine(), "A", "x", "near"), "");
  EXPECT_EQ(pass(), "-~/A x_UNTIL, A x=near");
  EXPECT_EQ(machine_.registry, (SimulatedClient::Registry{{{"~/A", "x"}, "near"}}));
  ASSERT_EQ(unset(mine(), "~/A", "x"), "");
  passes(2);
  ASSERT_EQ(set("@all", "~/A", "x", "far"), "");
  EXPECT_EQ(pass(), "-~/A x_UNTIL, ~/A x=far");
  passes(1);
  EXPECT_EQ(pass(), "~/A x=far");
  EXPECT_EQ(machine_.registry, (SimulatedClient::Registry{{{"~/A", "x"}, "far"}}));

  // One that was withdrawn takes its end along, and not what has its name elsewhere.
  ASSERT_EQ(set("@all", "~/A", "x", "far", end), "");
  ASSERT_EQ(set("@all", "~/B", "y", "1"), "");
  ASSERT_EQ(set(mine(), "~/B", "x", "other", end), "");
  passes(1);
  ASSERT_EQ(unset("@all", "~/A", "x"), "");
  EXPECT_EQ(pass(), "-~/A x, -~/A x_UNTIL, ~/B x=other, ~/B x_UNTIL=" + until + ", ~/B y=1");
  EXPECT_TRUE(has("~/B", "x"));
  hub_.setTime(end);
  EXPECT_TRUE(pass().ends_with("~/B x_UNTIL=" + until + ", ~/B y=1")) << "its time has come, and not passed";
  hub_.setTime(end + 1);
  EXPECT_EQ(pass(), "-~/B x, -~/B x_UNTIL, ~/B y=1");
  EXPECT_EQ(machine_.registry, (SimulatedClient::Registry{{{"~/B", "y"}, "1"}}));
}

// Once its time has passed by the store's clock, what is farther counts again; without anything farther the
// pair is removed, with a time that ends nothing of that name elsewhere.
TEST_P(HandOuts, WhatHasExpiredLeavesAsARemoval) {
  const std::int64_t end = hub_.now() + 100;
  ASSERT_EQ(group("pcs", 1, {"pc*"}), "");
  ASSERT_EQ(set("@all", "~/A", "x", "far"), "");
  ASSERT_EQ(set("g:pcs", "~/A", "x", "near", end), "");
  ASSERT_EQ(set("g:pcs", "~/B", "x", "near", end), "");
  passes(1);
  hub_.setTime(end + 1);
  EXPECT_EQ(pass(), "-~/A x_UNTIL, -~/B x, -~/B x_UNTIL, ~/A x=far");
  EXPECT_EQ(machine_.registry, (SimulatedClient::Registry{{{"~/A", "x"}, "far"}}));
}

TEST_P(HandOuts, ABatchInWhichANameEndsHereAndStaysThereIsRefused) {
  const std::int64_t end = hub_.now() + 100;
  ASSERT_EQ(set("@all", "~/A", "x", "1", end), "");
  const std::string conflict = "clients end a value by its name";
  expectSays(set("@all", "~/B", "x", "1"), conflict);
  expectSays(set(mine(), "~/B", "x", "1", end + 1), "\"~/B\" ends at");
  OBGui::RegistryKeyInfo removal = recordFor("~/B", "x", "");
  removal.deleteFlag = 1;
  EXPECT_EQ(put(mine(), removal), "");
  EXPECT_EQ(unset(mine(), "~/B", "x"), "");
  ASSERT_EQ(group("pcs", 1), "");
  EXPECT_EQ(set("g:pcs", "~/B", "x", "1"), "") << "no machine is in it";
  expectSays(membership("pcs", "pc?", true), conflict);
  EXPECT_EQ(pass(), "~/A x=1, ~/A x_UNTIL=" + std::to_string(end)) << "what was refused is not made";
}

// Nor is it made what time would bring about; and where it is there all the same, the machine is told why it
// gets nothing, and so is whoever asks.
TEST_P(HandOuts, AConflictThatTimeBringsIsNamed) {
  const std::int64_t end = hub_.now() + 100;
  for (const char* const path : {"~/A", "~/B"}) ASSERT_EQ(set(mine(), path, "x", "1", end), "");
  ASSERT_EQ(set("@all", "~/A", "x", "2", end + 100), "");
  const OBGui::RegistryKeyInfo endless = recordFor("~/B", "x", "2");
  expectSays(put("@all", endless), "clients end a value by its name");
  const CWmError slipped = hub_.one().database().write([&endless](soci::session& session) {
    beginSetting(session, settingOf("@all", endless), newestRevision(session));
    return CWmError();
  });
  ASSERT_STREQ(slipped.AsString(), "");
  passes(1);
  hub_.setTime(end + 1);
  const std::string conflict = "clients end a value by its name";
  expectSays(ask("pc1", id_).refusal, conflict);
  expectSays(hub_.contact(id_).refusal, conflict);
  ASSERT_EQ(unset("@all", "~/B", "x"), "");
  EXPECT_EQ(pass(), "-~/B x, -~/B x_UNTIL, ~/A x=2, ~/A x_UNTIL=" + std::to_string(end + 100));
  EXPECT_EQ(hub_.contact(id_).refusal, "");
}

// Whatever of a batch stays in the cache is answered by a record as long as it may be there. A value that is
// switched off stays in it, unlike one that is removed.
TEST_P(HandOuts, ABatchIsNeverShorterThanTheCache) {
  const std::int64_t end = hub_.now() + 100;
  OBGui::RegistryKeyInfo off = recordFor("~/A", "off", "1");
  off.enabledFlag = 0;
  OBGui::RegistryKeyInfo subKey = recordFor("~/A", "Local", "");
  subKey.valueType = std::string("KEY");
  subKey.enabledFlag = 0;
  ASSERT_EQ(put(mine(), off), "");
  ASSERT_EQ(put(mine(), subKey), "");
  ASSERT_EQ(set(mine(), "~/A", "until", "1", end), "");
  ASSERT_EQ(set(mine(), "~/A", "x", "1"), "");
  EXPECT_EQ(pass(),
            "!~/A Local, !~/A off, ~/A until=1, ~/A until_UNTIL=" + std::to_string(end) + ", ~/A x=1");
  EXPECT_EQ(machine_.cache.size(), 5U);
  machine_.registry[{"~/A", "off"}] = "mine";  // from now on nobody wants it off
  machine_.registry[{"~/A/Local", "own"}] = "mine";
  for (const char* const name : {"off", "until"}) ASSERT_EQ(unset(mine(), "~/A", name), "");
  ASSERT_EQ(unset(mine(), "~/A", "Local", true), "");
  ASSERT_EQ(set(mine(), "~/A", "x", "2"), "");
  pass();
  EXPECT_EQ(all(machine_.cache), "~/A x=2");
  EXPECT_TRUE(has("~/A", "off"));
  EXPECT_TRUE(has("~/A/Local", "own"));
  passes(1);
  EXPECT_EQ(pass(), "~/A x=2");
}

// A machine that was set back holds again what was taken from it, and a cache of any length.
TEST_P(HandOuts, AResendBringsAllRemovalsAgain) {
  for (const char* const name : {"x", "y"}) ASSERT_EQ(set("@all", "~/A", name, "1"), "");
  passes(1);
  const SimulatedClient before = machine_;
  ASSERT_EQ(unset("@all", "~/A", "y"), "");
  passes(2);
  EXPECT_EQ(pass(), "~/A x=1");
  machine_ = before;
  hub_.resend(id_);
  for (int n = 0; n < 2; ++n) {
    const std::string records = pass();
    EXPECT_TRUE(records.starts_with("-~/A y, "));
    EXPECT_EQ(std::count(records.begin(), records.end(), ','), 1999);
    EXPECT_EQ(machine_.registry, (SimulatedClient::Registry{{{"~/A", "x"}, "1"}}));
    EXPECT_EQ(all(machine_.cache), "~/A x=1");
  }
  EXPECT_EQ(pass(), "~/A x=1");
}

TEST_P(HandOuts, WhatCannotBeHandedOutIsRefusedWhole) {
  OBGui::RegistryKeyInfo secret = recordFor("~/A", "s", kHiddenSecret);
  secret.valueType = std::string("ENCRYPTED");
  secret.encryptedValue = pstring("sesame");
  ASSERT_EQ(put("@all", secret), "");
  EXPECT_EQ(pass(), "~/A s=secret sesame");
  expectSays(ask("pc1", id_ + 1).refusal, "unknown client id");
  expectSays(hub_.contact(id_).refusal, "unknown client id");
  HandOut out;
  EXPECT_EQ(handOut(hub_.one(), "pc2", id_, out).GetCode(), kLqErrRequestRefused);

  Setting foreign = settingOf("@all", secret);
  foreign.secret = "V8:" + std::string(foreign.secret.size() - 3, '0');
  ChangeSet changes;
  changes.put(foreign);
  ASSERT_EQ(hub_.change(changes), "");
  const std::int64_t number = hub_.contact(id_).handed;
  expectSays(ask("pc1", id_).refusal, "its secret ~/A s was protected with another key");
  EXPECT_EQ(hub_.contact(id_).handed, number);
  ASSERT_STREQ(handOutForPush(hub_.one(), "pc1", 0, out).AsString(), "");
  expectSays(out.refusal, "another key");
  ASSERT_EQ(unset("@all", "~/A", "s"), "");
  EXPECT_EQ(pass(), "-~/A s") << "what cannot be read can be withdrawn";
}

// What a machine needs to come back is not changed by accident, not even by way of a group.
TEST_P(HandOuts, TheWayBackIsChangedByForceOnly) {
  hub_.add("pc2");
  ChangeNote forced;
  forced.isForced = true;
  const std::string needed = "what a client needs to come back";
  ASSERT_EQ(group("pcs", 1), "");
  for (const auto& [path, name] : {std::pair{"EventManager", "bEnableRegistrySync"},
                                   {"~/Overhub", "sOHHOSTNAME"},
                                   {"~Overhub/", "sSESSIONKEY"},
                                   {"Base", "dBASEHOME"},
                                   {"Hosts/elsewhere", "sCLIENTNAME"},
                                   {"SOFTWARE/Velmor/Clients/pc1", "nCLIENTID"}}) {
    expectSays(set("@all", path, name, "0"), needed);
    expectSays(set("g:pcs", path, name, "0"), needed);  // whoever may come into that group
    ASSERT_EQ(put("g:pcs", recordFor(path, name, "0"), 0, forced), "");
    expectSays(unset("g:pcs", path, name), needed);
  }
  expectSays(membership("pcs", "pc*", true), needed);
  ChangeSet changes;
  changes.members.push_back({{"pcs", "pc*"}, true});
  ChangeNote dry;
  dry.isDryRun = true;
  EXPECT_EQ(hub_.change(changes, dry), "");
  EXPECT_EQ(hub_.result.effects.wayBack, (std::vector<std::string>{"pc1", "pc2"}));
  EXPECT_EQ(hub_.result.revision, 0);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(hub_.change(changes, forced), "");
  expectSays(group("pcs", std::nullopt), needed);
  EXPECT_EQ(set("@all", "EventManager", "dOBLOGDIR", "/logs"), "") << "it comes back without";

  // Nor by coming into one.
  ChangeSet joins;
  joins.newClients.resize(1);
  joins.newClients.front().client.name = "pc3";
  expectSays(hub_.change(joins), "(1 machine would get");
  EXPECT_EQ(hub_.change(joins, forced), "");
  hub_.add("db1");
}

}  // namespace
