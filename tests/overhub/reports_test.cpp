// What clients report of themselves: what is taken of it, what the store makes of it, and who hears of it.
#include "overhub/store/reports.h"

#include <nlohmann/json.hpp>

#include "overhub/store/confirmations.h"
#include "overhub/store/fleet_state.h"
#include "records/batch_digest.h"
#include "records/secret_values.h"
#include "records/service_names.h"
#include "tests/overhub/overhub_fixture.h"
#include "tests/overhub/store_fixture.h"

namespace {

using HostReport::Report;

constexpr std::int64_t kSilent = 2700;

Report reportOf(std::int64_t client, const std::string& epoch, std::int64_t sequence, std::int64_t time) {
  Report report;
  report.version = 1;
  report.clientId = client;
  report.epoch = epoch;
  report.sequence = sequence;
  report.time = time;
  report.cause = std::string(HostReport::kCauseSync);
  return report;
}
void addProblem(Report& report, const std::string& name, const std::string& kind, const std::string& reason,
                std::int64_t since = 0) {
  HostReport::Problem& problem = report.problems.edit().emplace_back();
  problem.keyPath = name.empty() ? "" : "~/A";
  problem.valueName = name;
  problem.kind = kind;
  problem.reason = reason;
  problem.since = since;
}
void addVerdict(Report& report, const std::string& word, const std::string& sentence) {
  HostReport::Verdict& verdict = report.verdicts.edit().emplace_back();
  verdict.module = "mod.so";
  verdict.keyPath = "~/A";
  verdict.valueName = "nB";
  verdict.verdict = word;
  verdict.sentence = sentence;
}
void addDrift(Report& report, const std::string& name, const std::string& before, const std::string& after,
              std::int64_t time) {
  HostReport::Drift& drift = report.drifts.edit().emplace_back();
  drift.keyPath = "~/A";
  drift.valueName = name;
  drift.before = before;
  drift.after = after;
  drift.time = time;
}
void setMemory(Report& report, const std::string& state, std::int64_t since) {
  HostReport::Memory& memory = report.memory.edit();
  memory.state = state;
  memory.reason = "no contact";
  memory.since = since;
}

class Reports : public testing::TestWithParam<EngineKind> {
 protected:
  template <class Work>
  void read(const Work& work) const {
    const CWmError error = hub_.one().database().read([&](soci::session& session) {
      work(session);
      return CWmError();
    });
    EXPECT_STREQ(error.AsString(), "");
  }
  // Why it was not taken; empty when it was.
  std::string say(const Report& report) {
    answer_ = {};
    return acceptReport(hub_.two(), "pc1", report, answer_).AsString();
  }
  Report next() { return reportOf(id_, "e", ++sequence_, hub_.now()); }
  std::optional<StoredReport> stored() const {
    std::optional<StoredReport> found;
    read([&](soci::session& session) { found = ::reportOf(session, id_); });
    return found;
  }
  MachineStatus machine() const {
    FleetStatus fleet;
    read([&](soci::session& session) {
      fleet = fleetStatus(session, {findClient(session, "pc1").value_or(Client())}, hub_.now(), kSilent);
    });
    return fleet.machines.front();
  }
  std::string set(const std::string& scope, const std::string& name, const std::string& value,
                  std::int64_t confirm = HostReport::kDemandNothing) {
    ChangeSet changes;
    changes.put(settingOf(scope, recordFor("~/A", name, value)));
    ChangeNote note;
    note.why = "ticket " + value;
    note.confirm = confirm;
    return hub_.change(changes, note);
  }
  // A hand-out that is acknowledged; the digest by which the client names it.
  std::string pass() const {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.one(), "pc1", id_, out).AsString(), "");
    EXPECT_STREQ(acknowledge(hub_.two(), "pc1", out.number, id_, OBGui::kTaskSuccess).AsString(), "");
    return digestOf(out);
  }
  std::string digestOf(const HandOut& out) const {
    std::string hex;
    std::string key;
    EXPECT_STREQ(readSessionKey(hub_.one(), "pc1", hex).AsString(), "");
    EXPECT_TRUE(sessionKeyFromHex(hex, key));
    return batchDigest(out.batch.keys, key);
  }
  std::int64_t rows(const std::string& table) const {
    std::int64_t count = 0;
    read([&](soci::session& session) {
      session << "SELECT COUNT(*) FROM " << table << " WHERE client = " << id_, soci::into(count);
    });
    return count;
  }

  TestStore hub_{GetParam()};
  std::int64_t id_ = hub_.add("pc1");
  std::int64_t sequence_ = 0;
  HostReport::Answer answer_;
};

INSTANTIATE_TEST_SUITE_P(Engines, Reports, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

// What comes late, or again, is answered and changes nothing; a host that has lost count is heard, and two
// that do so in turn are two machines.
TEST_P(Reports, TheNewestCounts) {
  struct Case {
    const char* epoch;
    std::int64_t sequence;
    std::int64_t time;
    bool isKept;
    bool areTwo = false;
  };
  const Case cases[] = {{"a", 5, 100, true},        {"a", 5, 100, false},      {"a", 5, 101, false},
                        {"a", 4, 99, false},        {"a", 4, 100, false},      {"a", 6, 90, true},
                        {"b", 1, 80, true},         {"b", 2, 81, true},        {"a", 7, 102, true, true},
                        {"a", 6, 101, false, true}, {"a", 3, 103, true, true}, {"a", 2, 104, true, true}};
  std::string kept;
  const std::int64_t start = hub_.now();
  for (const Case& each : cases) {
    hub_.setTime(hub_.now() + 1);
    EXPECT_EQ(say(reportOf(id_, each.epoch, each.sequence, each.time)), "");
    EXPECT_EQ(answer_.sequence, each.sequence);
    if (each.isKept) kept = each.epoch + std::to_string(each.sequence) + "@" + std::to_string(hub_.now());
    const ReportNote note = stored().value().note;
    EXPECT_EQ(note.epoch + std::to_string(note.sequence) + "@" + std::to_string(note.received), kept);
    EXPECT_EQ(note.areTwo(hub_.now()), each.areTwo) << kept;
  }
  EXPECT_EQ(machine().why, "two machines answer as pc1");
  EXPECT_EQ(machine().since, start + 9) << "numbers of one epoch are no proof of two";
  const std::tuple<const char*, std::int64_t, bool> later[] = {
      {"b", 86400, false}, {"a", 43200, false}, {"b", 43199, true}};
  for (const auto& [epoch, seconds, areTwo] : later) {
    hub_.setTime(hub_.now() + seconds);
    EXPECT_EQ(say(reportOf(id_, epoch, 9, hub_.now())), "");
    EXPECT_EQ(stored().value().note.areTwo(hub_.now()), areTwo) << "one is set back each night, another not";
  }
  EXPECT_EQ(rows("reports"), 1);
}

// Whatever is beyond what a report may be is refused whole, with the reason; what is just within is taken.
TEST_P(Reports, AreTakenWithinTheirBoundsOnly) {
  const std::function<void(Report&)> taken[] = {
      [](Report& report) {
        for (std::size_t i = 0; i < HostReport::kMaxEntries; ++i)
          addProblem(report, "n", "k", std::string(HostReport::kMaxTextBytes, 'x'));
      },
      [](Report& report) { addProblem(report, std::string(4096, 'n'), "k", "\n\x1b[31m\xff\\"); },
      [](Report& report) { report.time = 253'402'300'799; }};
  const std::pair<std::function<void(Report&)>, const char*> refused[] = {
      {[](Report& report) { report.version.clear(); }, "it is of version 0, and this server knows 1"},
      {[](Report& report) { report.version = 2; }, "it is of version 2, and this server knows 1"},
      {[](Report& report) { report.clientId = report.clientId + 1; }, ": pc1 is client "},
      {[](Report& report) { report.epoch = ""; }, "its epoch is no word"},
      {[](Report& report) { report.epoch = "a b"; }, "its epoch is no word"},
      {[](Report& report) { report.digest = std::string(129, 'a'); }, "a digest in it is no word"},
      {[](Report& report) { report.memory.edit().digest = "\xff"; }, "a digest in it is no word"},
      {[](Report& report) { report.cause = std::string(513, 'a'); }, "its cause has more than 512 bytes"},
      {[](Report& report) { addProblem(report, std::string(4097, 'n'), "k", ""); },
       "its valueName has more than 4096 bytes"},
      {[](Report& report) { report.memory.edit().deadline = -1; }, "its deadline is -1"},
      {[](Report& report) { addDrift(report, "n", "", "", 253'402'300'800); }, "its time is 253402300800"},
      {[](Report& report) { report.drifts.edit().resize(201); }, "it has more than 200 drifts"},
      {[](Report& report) {
         for (std::size_t i = 0; i < 100; ++i) addProblem(report, std::string(4000, 'n'), "k", "");
       },
       "it has more than 262144 bytes"}};
  for (const auto& [change, reason] : refused) {
    Report report = next();
    change(report);
    const std::string why = say(report);
    EXPECT_TRUE(contains(why, reason)) << why;
  }
  EXPECT_FALSE(stored()) << "nothing of them is kept";
  EXPECT_EQ(rows("drift_counts"), 0);
  for (const auto& change : taken) {
    Report report = next();
    change(report);
    EXPECT_EQ(say(report), "");
    EXPECT_TRUE(stored().value().report.equals(report)) << "as it came";
  }
  HostReport::Answer answer;
  EXPECT_EQ(acceptReport(hub_.one(), "pc2", next(), answer).GetCode(), kLqErrRequestRefused);
}

// A batch is known by its digest as long as it is one of the twenty newest; what stays the same through a
// revision is no other one.
TEST_P(Reports, NameTheBatchThatTheyAreAbout) {
  ASSERT_EQ(set(kAllScope, "nB", "0"), "");
  const std::string first = pass();
  EXPECT_EQ(pass(), first);
  ASSERT_EQ(set(kStaticScope, "nB", "1"), "");
  EXPECT_EQ(pass(), first);
  EXPECT_EQ(rows("hand_outs"), 1);
  Report report = next();
  report.digest = first;
  EXPECT_EQ(say(report), "");
  EXPECT_EQ(answer_.revision, hub_.result.revision);
  EXPECT_TRUE(answer_.isConfirmed == 1 && answer_.demand == HostReport::kDemandNothing &&
              answer_.goBack == 0 && answer_.version == 1);

  for (int n = 2; n <= 20; ++n) {
    ASSERT_EQ(set(kAllScope, "nB", std::to_string(n)), "");
    HandOut out;
    EXPECT_STREQ(handOutForPush(hub_.one(), "pc1", 1, out).AsString(), "");
    EXPECT_STREQ(notePushed(hub_.one(), "pc1", out).AsString(), "");
    report = next();
    report.digest = digestOf(out);
    EXPECT_EQ(say(report), "");
    EXPECT_EQ(answer_.revision, hub_.result.revision) << "a push is handed out, too";
  }
  for (const bool isKnown : {true, false}) {
    report = next();
    report.digest = first;
    EXPECT_EQ(say(report), "");
    EXPECT_EQ(answer_.isConfirmed, isKnown ? 1 : 0);
    EXPECT_EQ(answer_.revision != 0, isKnown);
    ASSERT_EQ(set(kAllScope, "nB", "x"), "");
    pass();
    EXPECT_EQ(rows("hand_outs"), 20);
  }
}

// Of what is not confirmed on this machine the strictest is demanded, and nothing that never reached it.
TEST_P(Reports, AreToldWhatTheNextBatchDemands) {
  ChangeSet group;
  group.groups.push_back({"g", 1});
  ASSERT_EQ(hub_.change(group), "");
  const auto demanded = [this] {
    Report report = next();
    report.cause = std::string(HostReport::kCauseAsk);
    EXPECT_EQ(say(report), "");
    return answer_.demand.get();
  };
  struct Case {
    std::string scope;
    std::int64_t confirm;
    std::int64_t demand;
  };
  const std::int64_t other = hub_.add("pc2");
  const Case cases[] = {{kAllScope, HostReport::kDemandNothing, HostReport::kDemandNothing},
                        {machineScope(other), 20, HostReport::kDemandNothing},
                        {groupScope("g"), 20, HostReport::kDemandNothing},
                        {kAllScope, HostReport::kDemandVerdicts, HostReport::kDemandVerdicts},
                        {kAllScope, 300, 300},
                        {machineScope(id_), 400, 300},
                        {kAllScope, HostReport::kDemandVerdicts, 300},
                        {kAllScope, 60, 60}};
  int value = 0;
  for (const Case& each : cases) {
    ASSERT_EQ(set(each.scope, "nB", std::to_string(++value), each.confirm), "");
    EXPECT_EQ(demanded(), each.demand) << value;
  }
  ChangeSet join;
  join.members.push_back({{"g", "pc1"}, true});
  ChangeNote note;
  note.confirm = 30;
  ASSERT_EQ(hub_.change(join, note), "");
  EXPECT_EQ(demanded(), 30) << "what a group says reaches who joins it";
  EXPECT_EQ(hub_.add("pc3") == 0 ? "" : "new", std::string("new"));
  Report joined = reportOf(hub_.result.newClients.front().id, "x", 1, hub_.now());
  EXPECT_STREQ(acceptReport(hub_.one(), "pc3", joined, answer_).AsString(), "");
  EXPECT_EQ(answer_.demand, HostReport::kDemandNothing) << "demanded of others, before it joined";
}

// A client that has asked gets no more than it was told of, and by no other way; one that never asks gets
// what there is.
TEST_P(Reports, AreAskedBeforeABatchThatDemandsSomething) {
  const auto refusal = [this](bool isPush) {
    HandOut out;
    const CWmError error =
        isPush ? handOutForPush(hub_.one(), "pc1", 1, out) : handOut(hub_.one(), "pc1", id_, out);
    EXPECT_STREQ(error.AsString(), "");
    hub_.setTime(hub_.now() + 2);
    return out.refusal;
  };
  ASSERT_EQ(set(kAllScope, "nB", "1", 60), "");
  EXPECT_EQ(refusal(false) + refusal(true), "") << "it has never asked";
  Report ask = next();
  ask.cause = std::string(HostReport::kCauseAsk);
  EXPECT_EQ(say(ask), "");
  EXPECT_EQ(refusal(false), "") << "it was told";
  EXPECT_TRUE(contains(refusal(true), "has to be confirmed within 60 s, which a push cannot ask for"));
  ASSERT_EQ(set(kAllScope, "nB", "2", HostReport::kDemandVerdicts), "");
  EXPECT_TRUE(contains(refusal(false), "has to be confirmed within 60 s and came while pc1 asked"));
  EXPECT_EQ(refusal(false), "") << "once; its host may have come to be an older one";
}

// Only what shows that the batch is in effect confirms it, or a person.
TEST_P(Reports, ConfirmWhatTheyShowToBeInEffect) {
  ASSERT_EQ(set(kAllScope, "nB", "1", 60), "");
  const std::string digest = pass();
  const std::int64_t handed = hub_.now();
  hub_.setTime(handed + 10);
  const auto isConfirmed = [&](const std::function<void(Report&)>& change) {
    Report report = next();
    report.digest = digest;
    report.outcome = std::string("applied");
    report.cache = std::string("stored");
    change(report);
    EXPECT_EQ(say(report), "");
    EXPECT_EQ(answer_.demand, answer_.isConfirmed == 1 ? HostReport::kDemandNothing : 60);
    return answer_.isConfirmed == 1;
  };
  const std::function<void(Report&)> doubtful[] = {
      [](Report& report) { report.outcome = std::string("heldBack"); },
      [](Report& report) { report.outcome = std::string("failed"); },
      [](Report& report) { report.cache = std::string("lost"); },
      [](Report& report) { report.isAsking = 1; },
      [](Report& report) { report.problemsOmitted = 1; },
      [](Report& report) { report.verdictsOmitted = 1; },
      [](Report& report) { setMemory(report, "goneBack", 5); },
      [](Report& report) { setMemory(report, "goingBack", 5); },
      [](Report& report) { addVerdict(report, "noAnswer", ""); },
      [&](Report& report) { addProblem(report, "nB", "tooLong", "too long", handed); },
      [](Report& report) { report.digest = std::string(64, 'a'); }};
  for (const auto& change : doubtful) EXPECT_FALSE(isConfirmed(change)) << &change - doubtful;
  // A machine that is not as it should be for another reason is none that goes back.
  EXPECT_TRUE(isConfirmed([&](Report& report) {
    report.outcome = std::string("partly");
    addProblem(report, "nB", "tooLong", "too long", handed - 1);
    addVerdict(report, "needsRestart", "");
  }));
  EXPECT_TRUE(isConfirmed(doubtful[0])) << "and stays so";

  ASSERT_EQ(set(kAllScope, "nB", "2", HostReport::kDemandVerdicts), "");
  read([&](soci::session& session) {
    EXPECT_EQ(demandOf(session, findClient(session, "pc1").value()).revision, hub_.result.revision);
  });
  const auto back = [&](std::int64_t since) {
    Report report = next();
    setMemory(report, "goneBack", since);
    EXPECT_EQ(say(report), "");
    return answer_.isReleased == 1;
  };
  EXPECT_FALSE(back(50));
  EXPECT_STREQ(hub_.one()
                   .database()
                   .writeOnce([&](soci::session& session) {
                     release(session, id_, 50);
                     confirm(session, id_, hub_.result.revision);
                     confirm(session, id_, 1);
                     EXPECT_EQ(demandOf(session, findClient(session, "pc1").value()).revision, 0)
                         << "an older one takes nothing back";
                     return CWmError();
                   })
                   .AsString(),
               "");
  EXPECT_TRUE(back(50));
  EXPECT_FALSE(back(51)) << "the next time it is another matter";
}

// Who set what, and why, for a client that does not know it yet.
TEST_P(Reports, AreAnsweredWithOrigins) {
  ChangeSet group;
  group.groups.push_back({"g", 1});
  group.members.push_back({{"g", "pc*"}, true});
  ASSERT_EQ(hub_.change(group), "");
  const std::pair<std::string, std::string> values[] = {
      {"nA", kAllScope}, {"nB", groupScope("g")}, {"nC", machineScope(id_)}, {"nC", kAllScope}};
  for (const auto& [name, scope] : values) ASSERT_EQ(set(scope, name, name), "");
  const std::int64_t newest = hub_.result.revision;
  Report report = next();
  report.digest = pass();
  ASSERT_EQ(set(kAllScope, "nA", "later"), "");
  EXPECT_EQ(say(report), "");
  std::string origins;
  for (const HostReport::Origin& origin : answer_.origins.get())
    origins += origin.keyPath.get() + " " + origin.valueName.get() + " " + origin.scope.get() + " " +
               std::to_string(newest - origin.revision) + ";";
  EXPECT_EQ(origins, "~/A nA @all 3;~/A nB @g 2;~/A nC pc1 1;");
  std::string revisions;
  for (const HostReport::Revision& revision : answer_.revisions.get())
    revisions += std::to_string(newest - revision.number) + " " + revision.who.get() + " " +
                 revision.why.get() + " " + std::to_string(hub_.now() - revision.time) + ";";
  EXPECT_EQ(revisions, "3 someone ticket nA 0;2 someone ticket nB 0;1 someone ticket nC 0;");

  report = next();
  report.digest = report.originsOf = stored().value().note.digest;
  EXPECT_EQ(say(report), "");
  EXPECT_TRUE(answer_.origins->empty() && answer_.revision == newest) << "it has them";
  report = next();
  report.digest = std::string(64, 'a');
  EXPECT_EQ(say(report), "");
  EXPECT_TRUE(answer_.origins->empty() && answer_.revision == 0 && answer_.isConfirmed == 0);
}

// Each with the state that it puts the machine in, the worst first, since when by the store's clock, and why.
TEST_P(Reports, SayInWhichStateAMachineIs) {
  ASSERT_EQ(set(kAllScope, "nB", "1"), "");
  const std::string digest = pass();
  EXPECT_STREQ(stateName(machine().state), "current")
      << "by its acknowledgement, as long as it never reported";
  const std::int64_t now = hub_.now();
  // The machine's clock is an hour behind.
  const std::int64_t there = now - 3600;
  struct Case {
    std::function<void(Report&)> change;
    const char* state;
    std::int64_t since;
    std::string why;
  };
  const auto good = [](Report&) {};
  const Case cases[] = {
      {good, "current", 0, ""},
      {[](Report& report) { addVerdict(report, "inEffect", ""); }, "current", 0, ""},
      {[](Report& report) { report.digest = ""; }, "pending", now,
       "revision 2 was handed to it and its report does not name it yet"},
      {[](Report& report) { addVerdict(report, "needsRestart", "since \x1b[1m"); }, "restart", 0,
       "mod.so needs a restart for ~/A nB: since \xef\xbf\xbd[1m"},
      {[](Report& report) {
         addVerdict(report, "needsRestart", "");
         addVerdict(report, "refused", "no");
       },
       "refused", 0, "mod.so refused ~/A nB: no"},
      {[](Report& report) { addVerdict(report, "noAnswer", ""); }, "refused", 0,
       "mod.so did not say in time whether it works with ~/A nB"},
      {[](Report& report) { addVerdict(report, "threw", "x"); }, "refused", 0,
       "mod.so failed with an exception when it was told of ~/A nB: x"},
      {[](Report& report) { addVerdict(report, "newWord", ""); }, "refused", 0, "mod.so refused ~/A nB"},
      {[there](Report& report) {
         addVerdict(report, "refused", "no");
         addProblem(report, "nB", "tooLong", "too long", there - 100);
         addProblem(report, "nC", "tooLong", "longer", there - 200);
         report.problemsOmitted = 3;
       },
       "failed", now - 200, "~/A nB: too long, and 4 more"},
      {[](Report& report) { report.problemsOmitted = 1; }, "failed", 0, "it has problems"},
      {[there](Report& report) {
         addProblem(report, "", "diskFull", "full", there + 7200);
         setMemory(report, "waiting", there);
       },
       "failed", now, "the machine: full"},
      {[there](Report& report) {
         addProblem(report, "nB", "tooLong", "too long", there - 100);
         setMemory(report, "goneBack", there - 50);
       },
       "back", now - 50, "it went back: no contact"},
      {[there](Report& report) { setMemory(report, "goingBack", there - 50); }, "back", now - 50,
       "it went back: no contact"}};
  for (const Case& each : cases) {
    pass();
    pass();  // whatever was doubted
    Report report = next();
    report.time = there;
    report.digest = digest;
    each.change(report);
    EXPECT_EQ(say(report), "");
    const MachineStatus is = machine();
    EXPECT_STREQ(stateName(is.state), each.state) << each.why;
    EXPECT_EQ(is.since, each.since) << each.why;
    EXPECT_EQ(is.why, each.why);
  }

  // What else is true of it.
  Report report = next();
  report.digest = pass();
  addDrift(report, "nB", "5", "1", hub_.now());
  EXPECT_EQ(say(report), "");
  EXPECT_EQ(machine().why, "1 value was changed on it and corrected");
  EXPECT_STREQ(stateName(machine().state), "corrected");
  ASSERT_EQ(set(kAllScope, "nB", "2"), "");
  EXPECT_EQ(machine().why, "revision 3 waits for its next pass");
  const std::string second = pass();
  EXPECT_STREQ(stateName(machine().state), "pending") << "acknowledged, but not yet reported";
  hub_.setTime(hub_.now() + kSilent);
  pass();
  EXPECT_STREQ(stateName(machine().state), "pending");
  hub_.setTime(hub_.now() + 1);
  pass();
  EXPECT_STREQ(stateName(machine().state), "corrected")
      << "it reports no more, and so acknowledgements count";
  report = next();
  report.digest = second;
  EXPECT_EQ(say(report), "");
  hub_.setTime(now + kCorrectedSeconds);
  pass();
  EXPECT_STREQ(stateName(machine().state), "current");
  hub_.setTime(hub_.now() + kSilent + 1);
  EXPECT_STREQ(stateName(machine().state), "silent");
  EXPECT_EQ(say(next()), "");
  EXPECT_STREQ(stateName(machine().state), "pending") << "a report is a sign of life";
}

// Once for each time that it went back: every machine that did holds again what was withdrawn meanwhile.
TEST_P(Reports, OfHavingGoneBackDoubtTheCacheOnce) {
  ASSERT_EQ(set(kAllScope, "nB", "1"), "");
  const std::tuple<const char*, std::int64_t, bool> cases[] = {{"waiting", 7, false},  {"goneBack", 7, true},
                                                               {"goneBack", 7, false}, {"kept", 8, false},
                                                               {"goneBack", 7, false}, {"goneBack", 9, true}};
  for (const auto& [state, since, isDoubted] : cases) {
    pass();
    pass();
    EXPECT_FALSE(hub_.contact(id_).isCacheUnknown);
    Report report = next();
    setMemory(report, state, since);
    EXPECT_EQ(say(report), "");
    EXPECT_EQ(hub_.contact(id_).isCacheUnknown, isDoubted) << state << since;
  }
}

// Counted for each value, the newest two hundred kept, and no secret among them.
TEST_P(Reports, CountWhatIsCorrected) {
  const std::int64_t start = hub_.now();
  Report report = next();
  addDrift(report, "nB", "6", "1", start - 40);
  addDrift(report, "nB", "5", "1", start - 50);
  addDrift(report, "sSESSIONKEY", "canary-1", "canary-2", start);
  addDrift(report, "sPW", "canary-3", "V8:canary-4", start);
  addDrift(report, "sOLD\xff\n", "a\x1b\xff", "", 0);
  report.drifts.edit().emplace_back();
  report.drifts.edit().back().isSecret = 1;
  report.drifts.edit().back().before = "canary-5";
  for (int again = 0; again < 2; ++again) EXPECT_EQ(say(report), "");
  const auto told = [this] {
    std::string text;
    read([&](soci::session& session) {
      text.clear();
      for (const DriftCount& drift : driftsOf(session, id_))
        text += drift.path + " " + drift.name + " " + std::to_string(drift.times) + " " +
                std::to_string(drift.first - hub_.now()) + " " + std::to_string(drift.last - hub_.now()) +
                " " + (drift.isSecret ? "secret" : drift.found + ">" + drift.corrected) + "\n";
    });
    return text;
  };
  EXPECT_EQ(told(),
            "  1 0 0 secret\n~/A nB 2 -50 -40 6>1\n~/A sOLD\xef\xbf\xbd\xef\xbf\xbd 1 0 0 "
            "a\xef\xbf\xbd\xef\xbf\xbd>\n~/A sPW 1 0 0 secret\n~/A sSESSIONKEY 1 0 0 secret\n");
  std::string text;
  stored().value().report.serialize(text, true);
  EXPECT_FALSE(contains(text, "canary"));

  hub_.setTime(start + 10);
  for (int batch = 0; batch < 2; ++batch) {
    report = next();
    for (int n = 0; n < 199; ++n) addDrift(report, "n" + std::to_string(batch), "", "", start);
    addDrift(report, "nB", "7", "1", 0);
    for (auto& drift : report.drifts.edit())
      drift.keyPath =
          drift.valueName.get() == "nB" ? "~/A" : "~/" + std::to_string(&drift - report.drifts->data());
    EXPECT_EQ(say(report), "");
  }
  EXPECT_EQ(rows("drift_counts"), 200);
  EXPECT_TRUE(contains(told(), "~/A nB 4 -60 0 7>1\n")) << "the newest is among them";
}

// What is removed leaves nothing behind.
TEST_P(Reports, GoWithTheirClient) {
  ASSERT_EQ(set(kAllScope, "nB", "1"), "");
  Report report = next();
  report.digest = pass();
  addDrift(report, "nB", "5", "1", hub_.now());
  EXPECT_EQ(say(report), "");
  ChangeSet removal;
  removal.removedClients.push_back(id_);
  ASSERT_EQ(hub_.change(removal), "");
  EXPECT_EQ(rows("reports") + rows("hand_outs") + rows("drift_counts"), 0);
}

// Over the wire, and as people and programs hear of it.
class ReportService : public OverhubTest {
 protected:
  ReportService() { expectOk({"add-client", "pc1"}); }

  // The answer to a report; in `refusal`, why there is none.
  HostReport::Answer say(const Report& report, std::string& refusal) const {
    become("pc1");
    CLqNetwork network;
    EXPECT_STREQ(attach(network, kReportLibraryName, kReportEntryName).AsString(), "");
    send(network, report);
    std::unique_ptr<CNMessageBase> message;
    bool peerGone = false;
    refusal = network.ReceiveXMLMessage(nullptr, message, nullptr, 0, kPatience, peerGone).AsString();
    leave(network);
    const auto* const answer = messageAs<HostReport::Answer>(message.get());
    return answer != nullptr ? *answer : HostReport::Answer();
  }
  void keep(const Report& report) const {
    onStore([&report](const Store& store) {
      HostReport::Answer answer;
      return acceptReport(store, "pc1", report, answer);
    });
  }
  Report next() { return reportOf(3, "e", ++sequence_, std::time(nullptr)); }

  std::int64_t sequence_ = 0;
};

TEST_F(ReportService, AnswersOnASessionOfTheClientsOwn) {
  expectOk({"set", "pc1", "~/A", "nB", "1"});
  const auto server = serve();
  std::string refusal;
  EXPECT_EQ(say(next(), refusal).sequence, 1) << refusal;
  Report foreign = next();
  foreign.clientId = 4;
  EXPECT_EQ(say(foreign, refusal).version, 0);
  EXPECT_TRUE(contains(refusal, "unknown client id 4: pc1 is client 3")) << refusal;
  meddle("ALTER TABLE reports RENAME TO no_reports");
  say(next(), refusal);
  EXPECT_TRUE(contains(refusal, "cannot keep the report of pc1 now; its log tells why, come again later"));
  meddle("ALTER TABLE no_reports RENAME TO reports");

  // The digest is of what was sent, under the key of the session.
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  std::string key;
  ASSERT_TRUE(sessionKeyFromHex(keyOf("pc1"), key));
  Report report = next();
  report.digest = batchDigest(ask(network, requestOf(3), refusal).keys, key);
  leave(network);
  const HostReport::Answer answer = say(report, refusal);
  EXPECT_TRUE(answer.isConfirmed == 1 && answer.origins->size() == 1 && answer.revisions->size() == 1);
  EXPECT_TRUE(server->waitForOutput("HostReport.Report: report 4, 0 problems, 1 origins told"));
}

// Every kind has a way out of its own, and the machine is not asked.
TEST_F(ReportService, WhyNamesEachRecordAndTheWayOut) {
  expectErr(overhub({"why", "nobody"}), 1, {"there is no client \"nobody\""});
  expectOut(overhub({"why", "pc1"}), 6,
            {"pc1: never\n  ! it has not called since it was added (for ", " way out: start the host there"});
  const std::int64_t now = std::time(nullptr);
  onStore([](const Store& store) {
    HandOut out;
    const CWmError error = handOut(store, "pc1", 3, out);
    return error.IsError() ? error : acknowledge(store, "pc1", out.number, 3, OBGui::kTaskSuccess);
  });
  expectOut(overhub({"why", "pc1"}), 0,
            {"pc1: current\n    acknowledged just now: applied\n    it has never reported; ",
             "\n    was handed the batch of revision 1 just now\n"});

  const std::pair<const char*, const char*> kinds[] = {{"forbidden", "no sub-key but"},
                                                       {"readOnly", "writable for the user"},
                                                       {"diskFull", "free space"},
                                                       {"tooLong", "set something shorter"},
                                                       {"protection", "protection key back"},
                                                       {"damaged", "restore the machine's registry"},
                                                       {"cacheUnreadable", "lqhost sync --fresh"},
                                                       {"cacheKept", "overhub resend pc1"},
                                                       {"cacheLost", "base directory writable"},
                                                       {"overridden", "who sets it on the machine"},
                                                       {"locked", "holds the machine's registry"},
                                                       {"badName", "a name and a path"},
                                                       {"newKind", "\"lqhost status\" on the machine"}};
  Report report = next();
  report.time = now - 3600;
  for (const auto& [kind, wayOut] : kinds)
    addProblem(report, kind, kind, "reason of " + std::string(kind), now - 10800);
  addProblem(report, "", "diskFull", "<b>\x1b[31m", 0);
  report.problemsOmitted = 2;
  const std::pair<const char*, const char*> verdicts[] = {{"refused", "set something that the module takes"},
                                                          {"noAnswer", "see whether the module hangs"},
                                                          {"threw", "see the module's log"},
                                                          {"needsRestart", "restart the module"}};
  for (const auto& [word, wayOut] : verdicts) addVerdict(report, word, "says " + std::string(word));
  addVerdict(report, "inEffect", "");
  report.asked = 5;
  setMemory(report, "goneBack", now - 7200);
  report.memory.edit().places = 4;
  report.memory.edit().localChanges = 1;
  report.nextSync = now - 3600 + 600;
  report.hostVersion = "0.9";
  addDrift(report, "nD", "5", "1", now - 3600);
  keep(report);
  const auto list = nlohmann::json::parse(overhub({"why", "pc1", "--json"}).out);
  const auto wayOutOf = [&list](const std::string& kind) -> std::string {
    for (const auto& finding : list["findings"])
      if (finding["kind"] == kind && finding["isWrong"] == true) return finding["wayOut"];
    return "none";
  };
  for (const auto& [kind, wayOut] : kinds) EXPECT_TRUE(contains(wayOutOf(kind), wayOut)) << kind;
  for (const auto& [word, wayOut] : verdicts) EXPECT_TRUE(contains(wayOutOf(word), wayOut)) << word;
  EXPECT_TRUE(
      contains(wayOutOf("wentBack"), R"("overhub confirm pc1", or "lqhost rollback --forget" on it)"));
  const auto text = overhub({"why", "pc1"});
  expectOut(text, 6,
            {"pc1: back\n  ! its clock is 60 min behind the server's\n",
             "  ! it went back to what it held before (4 values, 1 of them changed on the machine "
             "meanwhile and left so): no contact (for 60 min)\n",
             "  ! ~/A tooLong: reason of tooLong (for 2 h)\n      way out: set something shorter\n",
             "  ! <b>\\x1b[31m\n      way out: free space",
             "  ! 2 more problems, for which its report had no room\n",
             "  ! mod.so refused ~/A nB: says refused\n      way out: set something that",
             "\n    5 modules were asked, 1 say that it is in effect\n", "\n    its next pass is due in ",
             "; host 0.9\n",
             "\n    ~/A nD was changed on the machine and corrected once, last from \"5\" to \"1\"\n"});
  EXPECT_FALSE(contains(text.out, "\x1b"));
  meddle("UPDATE contacts SET outcome_time = outcome_time + 10000");
  expectOut(overhub({"why", "pc1"}), 6,
            {"  ! it gets all of it again\n",
             "before passes that it has made since; its host makes none any more"});
}

// The same facts in status, its figures and the page.
TEST_F(ReportService, StatusListsDriftAndTheNewStates) {
  EXPECT_EQ(outOf(overhub({"status", "--drift"})), "no value was changed on a machine\n");
  Report report = next();
  addVerdict(report, "refused", "<i>\x1b");
  addDrift(report, "<u>nB", "5\x1b", "1", report.time);
  addDrift(report, "sPW", "V8:canary-7731", "", report.time);
  keep(report);
  const std::string line = outOf(overhub({"status", "--drift", "pc1"}));
  EXPECT_TRUE(contains(line, "PATH  NAME   MACHINE  TIMES  FIRST     LAST      FOUND")) << line;
  EXPECT_TRUE(contains(line, "~/A   <u>nB  pc1          1  just now  just now  5")) << line;
  const auto list = nlohmann::json::parse(outOf(overhub({"status", "--drift", "--json"})));
  EXPECT_EQ(list["drifts"][0]["machine"].get<std::string>() + list["drifts"][0]["times"].dump() +
                list["drifts"][0]["corrected"].get<std::string>() +
                list["drifts"][1]["found"].get<std::string>(),
            "pc111" + std::string(kHiddenSecret));
  expectErr(overhub({"status", "--drift", "nobody"}), 1, {"there is no client \"nobody\""});

  expectOut(overhub({"status", "--refused"}), 6,
            {"1 machine at revision 1: 1 refused\n", "mod.so refused ~/A nB: <i>"});
  const auto status = nlohmann::json::parse(overhub({"status", "--json"}).out);
  EXPECT_TRUE(status["refused"] == 1 && status["corrected"] == 0 &&
              status["machines"][0]["reported"].is_string());
  const std::string metrics = overhub({"status", "--prometheus"}).out;
  for (const char* const figure :
       {"overhub_clients{state=\"refused\"} 1\n", "overhub_clients{state=\"back\"} 0\n",
        "overhub_corrected_values 2\n", "overhub_reporting_clients 1\n"})
    EXPECT_TRUE(contains(metrics, figure)) << figure << metrics;
  const std::string file = dir_ / "page.html";
  expectOk({"report", file});
  const std::string page = readFile(file);
  for (const char* const shown : {"&lt;u&gt;nB", "refused ~/A nB: &lt;i&gt;"})
    EXPECT_TRUE(contains(page, shown));
  for (const char* const absent : {"<u>", "<i>", "\x1b", "canary"}) EXPECT_FALSE(contains(page, absent));
}

}  // namespace
