// Pushes in stages, as the store sees them: who is handed what, what proves it, and what is taken back.
#include "overhub/store/rollouts.h"

#include "overhub/commands/stage_sizes.h"
#include "overhub/store/confirmations.h"
#include "overhub/store/rollout_proof.h"
#include "records/batch_digest.h"
#include "tests/overhub/store_fixture.h"
#include "tests/support/expectations.h"

namespace {

// A machine that reports, by hand.
struct Pc {
  std::string name;
  std::int64_t id = 0;
  std::int64_t sequence = 0;
  std::string digest{};  // of the batch that it was handed last
  std::string value{};   // of ~/A nB in it
};

class Rollouts : public testing::TestWithParam<EngineKind> {
 protected:
  Rollouts() {
    set("1");
    for (Pc* pc : {&one_, &two_}) fetch(*pc);
  }

  // Works on the store; what was refused, or nothing.
  template <class Work>
  std::string write(const Work& work) const {
    return hub_.one().database().write([&](soci::session& session) { return work(session); }).AsString();
  }
  void set(const std::string& value) {
    ChangeSet changes;
    changes.put(settingOf(std::string(kAllScope), recordFor("~/A", "nB", value)));
    ASSERT_EQ(hub_.change(changes), "");
  }
  std::int64_t newest() const { return hub_.result.revision; }
  Pc made(const std::string& name) { return {name, hub_.add(name)}; }

  void keep(Pc& pc, const HandOut& out) const {
    std::string hex;
    std::string key;
    EXPECT_STREQ(readSessionKey(hub_.one(), pc.name, hex).AsString(), "");
    EXPECT_TRUE(sessionKeyFromHex(hex, key));
    pc.digest = batchDigest(out.batch.keys, key);
    for (const OBGui::RegistryKeyInfo& each : out.batch.keys.get())
      if (!each.valueName->empty()) pc.value = each.value;
  }
  void fetch(Pc& pc) const {
    HandOut out;
    EXPECT_STREQ(handOut(hub_.two(), pc.name, pc.id, out).AsString(), "");
    EXPECT_EQ(out.refusal, "");
    EXPECT_STREQ(acknowledge(hub_.one(), pc.name, out.number, pc.id, OBGui::kTaskSuccess).AsString(), "");
    keep(pc, out);
  }
  // A report of its state: its memory's word, and a problem unless that is empty.
  HostReport::Answer say(Pc& pc, const char* cause, const std::string& memory,
                         const std::string& problem = {}) {
    HostReport::Report report;
    report.version = HostReport::kVersion;
    report.clientId = pc.id;
    report.epoch = std::string("e");
    report.sequence = ++pc.sequence;
    report.time = hub_.now();
    report.cause = std::string(cause);
    report.outcome = std::string("applied");
    report.cache = std::string("stored");
    report.digest = pc.digest;
    report.memory.edit().state = memory;
    report.memory.edit().digest = pc.digest;
    report.memory.edit().since = hub_.now();
    if (!problem.empty()) {
      HostReport::Problem& told = report.problems.edit().emplace_back();
      told.kind = std::string("locked");
      told.reason = problem;
    }
    HostReport::Answer answer;
    EXPECT_STREQ(acceptReport(hub_.two(), pc.name, report, answer).AsString(), "");
    return answer;
  }
  // A push of the newest with one machine a stage, or all in one.
  std::string begin(const std::vector<Pc*>& pcs, std::int64_t demand = HostReport::kDemandNothing,
                    bool areAllInOne = false) {
    push_ = Rollout();
    push_.revision = newest();
    push_.demand = demand;
    push_.target = "@all";
    std::vector<RolloutMachine> machines;
    for (const Pc* pc : pcs) {
      RolloutMachine& machine = machines.emplace_back();
      machine.client = pc->id;
      machine.stage = areAllInOne ? 1 : static_cast<std::int64_t>(machines.size());
    }
    push_.stages = machines.back().stage;
    return write([&](soci::session& session) {
      return beginRollout(session, push_, machines, "somebody", hub_.now());
    });
  }
  void beginStage(std::int64_t stage) {
    push_.stage = stage;
    EXPECT_EQ(write([&](soci::session& session) {
                ::beginStage(session, push_, stage);
                return CWmError();
              }),
              "");
  }
  void stop(bool isTakenBack) const {
    EXPECT_EQ(write([&](soci::session& session) {
                stopStage(session, push_, isTakenBack);
                return CWmError();
              }),
              "");
  }
  // Looks at a machine of the push.
  template <class Look>
  auto look(const Pc& pc, const Look& look) const {
    decltype(look(std::declval<soci::session&>(), RolloutMachine(), MachineStatus())) seen{};
    EXPECT_EQ(write([&](soci::session& session) {
                const FleetStatus fleet = fleetStatus(
                    session, {findClient(session, pc.name).value_or(Client())}, hub_.now(), 1'000'000);
                for (const RolloutMachine& machine : machinesOf(session, push_.number))
                  if (machine.client == pc.id) seen = look(session, machine, fleet.machines.front());
                return CWmError();
              }),
              "");
    return seen;
  }
  // "inEffect", or "failed: why".
  std::string proof(const Pc& pc) const {
    const Proof proof = look(
        pc, [this, &pc](soci::session& session, const RolloutMachine& machine, const MachineStatus& now) {
          return proofOf(session, push_, machine, now, allConfirmed(session)[pc.id]);
        });
    return rolloutResultName(proof.result) + (proof.why.empty() ? "" : ": " + proof.why);
  }
  bool hasToGoBack(const Pc& pc) const {
    return look(pc, [this](soci::session& session, const RolloutMachine& machine, const MachineStatus& now) {
      return ::hasToGoBack(session, push_, machine, now);
    });
  }
  MachineStatus status(const Pc& pc) const {
    return look(pc, [](soci::session&, const RolloutMachine&, const MachineStatus& now) { return now; });
  }
  RolloutResult resultOf(const Pc& pc) const {
    return look(pc, [](soci::session&, const RolloutMachine& machine, const MachineStatus&) {
      return machine.result;
    });
  }

  TestStore hub_{GetParam()};
  Pc one_ = made("pc1");
  Pc two_ = made("pc2");
  Rollout push_;
};

INSTANTIATE_TEST_SUITE_P(Engines, Rollouts, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

// By whatever way a machine comes to a batch, it gets nothing new before its stage; then it does.
TEST_P(Rollouts, HoldMachinesUntilTheirStageBegins) {
  Pc fresh = made("pc3");
  set("2");
  ASSERT_EQ(begin({&one_, &two_, &fresh}), "");
  for (Pc* pc : {&one_, &two_, &fresh}) fetch(*pc);
  EXPECT_EQ(one_.value + two_.value, "11");
  EXPECT_EQ(fresh.value, "2") << "there is nothing that it could go on with";
  const Contact before = hub_.contact(two_.id);
  beginStage(1);
  for (Pc* pc : {&one_, &two_}) fetch(*pc);
  EXPECT_EQ(one_.value + two_.value, "21");
  EXPECT_EQ(hub_.contact(two_.id).handedRevision, before.handedRevision);
  HandOut pushed;
  EXPECT_STREQ(handOutForPush(hub_.one(), "pc2", 60, pushed).AsString(), "");
  keep(two_, pushed);
  EXPECT_EQ(two_.value, "1");
  EXPECT_STREQ(notePushed(hub_.one(), "pc2", pushed).AsString(), "");

  EXPECT_EQ(status(two_).state, FleetState::pending);
  EXPECT_TRUE(contains(status(two_).why, "is held back by push 1 in stages")) << status(two_).why;
  EXPECT_EQ(
      begin({&two_}),
      "pc2 is in push 1, which is not over; \"overhub push --resume 1\" goes on with it, --end gives it up");
  const auto giveUp = [this] {
    return write([this](soci::session& session) { return giveUpRollout(session, 1, hub_.now()); });
  };
  EXPECT_TRUE(contains(giveUp(), "somebody is at push 1")) << giveUp();
  hub_.setTime(hub_.now() + kRolloutLease);
  EXPECT_EQ(giveUp(), "");
  EXPECT_EQ(giveUp(), "push 1 is over");
  fetch(two_);
  EXPECT_EQ(two_.value, "2");
  EXPECT_EQ(begin({&two_}), "");
  EXPECT_EQ(push_.number, 2);
}

// A machine is in effect by a report of the batch that it was handed, and fails by one that came after that;
// what it said before its stage, and what it only repeats on asking, counts for neither.
TEST_P(Rollouts, AreProvenByReports) {
  say(one_, HostReport::kCauseSync, "none", "before");
  set("2");
  ASSERT_EQ(begin({&one_, &two_}), "");
  beginStage(1);
  const std::string revision = std::to_string(newest());
  EXPECT_EQ(proof(one_), "waiting: has not fetched revision " + revision);
  say(one_, HostReport::kCauseAsk, "none", "before");
  fetch(one_);
  EXPECT_EQ(proof(one_), "waiting: has not reported on revision " + revision);
  say(one_, HostReport::kCauseAsk, "none", "before");
  EXPECT_EQ(proof(one_), "waiting: the machine: before");
  say(one_, HostReport::kCauseSync, "none", "after");
  EXPECT_EQ(proof(one_), "failed: the machine: after");

  beginStage(1);  // once more
  EXPECT_EQ(proof(one_), "waiting: has not fetched revision " + revision) << "what it said is of before";
  say(one_, HostReport::kCauseRefresh, "none", "after");
  EXPECT_EQ(proof(one_), "waiting: has not fetched revision " + revision) << "it has not tried again";
  fetch(one_);
  say(one_, HostReport::kCauseSync, "kept");
  EXPECT_EQ(proof(one_), "inEffect");
  say(one_, HostReport::kCauseRefresh, "kept", "later");
  EXPECT_EQ(proof(one_), "inEffect") << "it has been";
  say(one_, HostReport::kCauseRollback, "goneBack");
  EXPECT_TRUE(proof(one_).starts_with("failed: it went back") ||
              proof(one_).starts_with("waiting: it went back"))
      << proof(one_);

  beginStage(2);
  EXPECT_EQ(write([this](soci::session& session) {
              confirm(session, two_.id, newest());
              return CWmError();
            }),
            "");
  EXPECT_EQ(proof(two_), "inEffect") << "a person has said so";
}

// Of a stage that has failed, machines that hold the batch go back from it and from no other, and those that
// do not yet hold it are held again; what had been shown counts no more, until it is tried again.
TEST_P(Rollouts, TakeAStageBack) {
  Pc three = made("pc3");
  fetch(three);
  say(one_, HostReport::kCauseSync, "none");
  set("2");
  ASSERT_EQ(begin({&one_, &two_, &three}, 300, true), "");
  beginStage(1);
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "none").demand, 300);
  fetch(one_);
  fetch(two_);
  say(one_, HostReport::kCauseSync, "kept");
  ASSERT_EQ(proof(one_), "inEffect");
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "kept").goBack, 0);
  stop(true);
  fetch(three);
  EXPECT_EQ(three.value, "1");
  EXPECT_EQ(resultOf(three), RolloutResult::held);

  EXPECT_TRUE(hasToGoBack(one_) && hasToGoBack(two_) && !hasToGoBack(three));
  EXPECT_EQ(say(one_, HostReport::kCauseSync, "kept").goBack, 0) << "only before a pass";
  EXPECT_NE(proof(one_), "inEffect");
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "kept").goBack, 1);
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "goneBack").goBack, 0);
  EXPECT_FALSE(hasToGoBack(one_));
  EXPECT_EQ(say(two_, HostReport::kCauseAsk, "waiting").goBack, 1);
  EXPECT_TRUE(hasToGoBack(two_));
  say(two_, HostReport::kCauseSync, "none");
  EXPECT_FALSE(hasToGoBack(two_)) << "there is nothing that it could go back from";

  // What is set afterwards is not taken back with it.
  Pc late = two_;
  set("3");
  fetch(two_);
  EXPECT_EQ(two_.value, "3");
  EXPECT_EQ(say(two_, HostReport::kCauseAsk, "kept").goBack, 0);
  late.sequence = two_.sequence;
  EXPECT_EQ(say(late, HostReport::kCauseAsk, "kept").goBack, 1) << "it still remembers the other";

  // Once more, with what is set by now.
  push_.revision = newest();
  const auto takeUp = [this](const std::string& runner) {
    return write([&](soci::session& session) { return takeUpRollout(session, push_, runner, hub_.now()); });
  };
  EXPECT_TRUE(contains(takeUp("another"), "somebody is at push 1; it can be taken up 15 s"));
  hub_.setTime(hub_.now() + kRolloutLease);
  ASSERT_EQ(takeUp("another"), "");
  const auto renew = [this](const std::string& runner) {
    return write(
        [&](soci::session& session) { return renewRollout(session, push_.number, runner, hub_.now()); });
  };
  EXPECT_TRUE(contains(renew("somebody"), "another is at push 1"));
  EXPECT_EQ(renew("another"), "");
  fetch(one_);
  EXPECT_EQ(one_.value, "2") << "it had been handed that";
  beginStage(1);
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "goneBack").isReleased, 0) << "it went back anew";
  say(late, HostReport::kCauseAsk, "kept");
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "kept").goBack, 0);
  fetch(one_);
  EXPECT_EQ(one_.value, "3");
}

// Without --confirm nothing goes back; and what a machine went back from it may try again with its stage.
TEST_P(Rollouts, LetMachinesTryAgain) {
  set("2");
  ASSERT_EQ(begin({&one_, &two_}), "");
  beginStage(1);
  fetch(one_);
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "goneBack").isReleased, 0);
  stop(false);
  EXPECT_FALSE(hasToGoBack(one_));
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "kept").goBack, 0);
  beginStage(1);
  EXPECT_EQ(say(one_, HostReport::kCauseAsk, "goneBack").isReleased, 1);
  EXPECT_EQ(say(two_, HostReport::kCauseAsk, "goneBack").isReleased, 0);
}

TEST(StageSizes, AreMachinesOrPercentages) {
  const std::tuple<std::string, std::size_t, std::vector<std::size_t>> good[] = {
      {"1,10%,100%", 40, {1, 4, 40}},
      {"1,10%,100%", 3, {1, 3}},
      {"10%,50%,100%", 15, {2, 8, 15}},
      {"100%", 7, {7}},
      {"2,7", 7, {2, 7}},
      {"5,20", 7, {5, 7}},
      {"1,100%", 1, {1}}};
  for (const auto& [text, machines, wanted] : good) {
    std::vector<std::size_t> ends;
    EXPECT_STREQ(readStages(text, machines, ends).AsString(), "") << text;
    EXPECT_EQ(ends, wanted) << text;
  }
  for (const char* const text :
       {"1,10%", "0,100%", "10%,5%,100%", "101%", "x", "1;2", "100%,", "", "-1,100%", "%"}) {
    std::vector<std::size_t> ends;
    EXPECT_TRUE(readStages(text, 40, ends).IsError()) << text;
  }
}

}  // namespace
