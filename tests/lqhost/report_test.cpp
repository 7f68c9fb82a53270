// What the host reports to the server: what is wrong and why, what was corrected, within bounds and without
// secrets; in order, kept until it is taken, and never in the way of a pass.
#include "lqhost/report/host_reporter.h"

#include <sqlite3.h>

#include "common/host_service.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/pass/wire_watch.h"
#include "lqhost/report/report_bounds.h"
#include "lqhost/service/passes.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "records/batch_digest.h"
#include "records/service_names.h"
#include "tests/support/product_fixture.h"

namespace {

using host::HostReporter;
using host::PassNews;
using HostReport::Report;

const std::string kCanary = "sesame-open-canary";

// A joined machine whose server takes reports, as the test wants it to.
class HostReporting : public ProductTest {
 protected:
  HostReporting() {
    join();
    HostReport::RegisterSubsystem();
    host::WireWatch::install();
  }
  ~HostReporting() override { CLqNetwork::SetObserver({}); }

  static PeerFrame answered(std::int64_t sequence, std::int64_t demand = HostReport::kDemandNothing) {
    HostReport::Answer answer;
    answer.version = HostReport::kVersion;
    answer.sequence = sequence;
    answer.demand = demand;
    answer.isReleased = 1;
    std::string text;
    EXPECT_EQ(answer.serialize(text, false), 0);
    return {PeerSession::kMessage, text};
  }
  // Keeps each report, and what was sent as such.
  PlayedServer::ReportService keeping() {
    return [this](const std::string& text) {
      Report report;
      EXPECT_EQ(report.unserialize(text), 0) << text;
      EXPECT_LE(text.size(), HostReport::kMaxReportBytes);
      const std::lock_guard lock(mutex_);
      texts_ += text;
      reports_.push_back(report);
      return answered(report.sequence);
    };
  }
  std::vector<Report> reports() {
    const std::lock_guard lock(mutex_);
    return reports_;
  }
  Report newest() {
    const std::vector<Report> all = reports();
    EXPECT_FALSE(all.empty());
    return all.empty() ? Report() : all.back();
  }
  // A pass as the schedule runs it, in which the server sends these records; what is reported after it.
  Report pass(const OBGui::KeyList& keys, bool isPrinted = false) {
    PlayedServer server(address_, sessionKey_, {answering(batchText(keys)), taking()});
    server.serveReports(keeping());
    LqPeriodicTaskStatus status;
    if (isPrinted) {
      printed_.clear();
      passes_.downloadWithReport(status, printed_, host::OldCache::kStays);
    } else {
      passes_.download(status);
    }
    return newest();
  }
  Report refresh() {
    PlayedServer server(address_, sessionKey_, {});
    server.serveReports(keeping());
    LqPeriodicTaskStatus status;
    passes_.refresh(status);
    return newest();
  }
  // What a reporter sends for this, where the server takes it or not.
  static std::string driftText(const Report& report) {
    std::string text;
    for (const HostReport::Drift& drift : report.drifts.get())
      text += drift.keyPath.get() + " " + drift.valueName.get() + ": " +
              (drift.before.isSet() ? drift.before.get() : "-") + " > " +
              (drift.after.isSet() ? drift.after.get() : "-") + (drift.isSecret == 1 ? " secret\n" : "\n");
    return text;
  }
  static std::string problemText(const Report& report) {
    std::string text;
    for (const HostReport::Problem& problem : report.problems.get())
      text += problem.kind.get() + " " + problem.keyPath.get() + " " + problem.valueName.get() + ": " +
              problem.reason.get() + "\n";
    return text;
  }

  host::ProductLibrary product_;
  host::Passes passes_{product_};
  std::string printed_;
  std::mutex mutex_;
  std::vector<Report> reports_;  // guarded by mutex_
  std::string texts_;            // likewise
};

// Each kind of failure has its word and a reason that names the cause, also where nobody looks at the
// machine.
TEST_F(HostReporting, EveryRecordThatFailsHasItsReason) {
  const auto lockRegistry = [&](bool isLocked) {
    static sqlite3* other = nullptr;
    if (isLocked) {
      lqregistry::UseWriteWait(std::chrono::milliseconds(0));
      ASSERT_EQ(sqlite3_open(registryFile_.c_str(), &other), SQLITE_OK);
      EXPECT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    } else {
      sqlite3_close(other);
    }
  };
  std::optional<FullDisk> disk;
  const auto fill = [&](bool isFull) { isFull ? void(disk.emplace(150'000)) : disk.reset(); };
  const auto hideKey = [&](bool isHidden) {
    const std::string key = registryFile_ + ".key";
    std::filesystem::rename(isHidden ? key : key + ".aside", isHidden ? key + ".aside" : key);
  };
  const auto nothing = [](bool) {};
  struct Case {
    std::function<void(bool)> spoil;
    OBGui::KeyList batch;
    std::string problem;
  };
  const std::string name(1025, 'n');
  const OBGui::KeyList one{record("A", "sONE", "1")};
  const Case cases[] = {
      {nothing, {record("Clients", "Other", "", "KEY")}, "forbidden ~Clients Other: keys may not be created"},
      {nothing, {removal("A", "")}, "noName ~A : a record without a name cannot be removed"},
      {nothing, {record("A", name, "1")}, "badName ~A " + name + ": the registry does not take this name"},
      {nothing,
       {record("A", "sLONG", std::string(10240, 'x'))},
       "tooLong ~A sLONG: the value has 10240 bytes"},
      {hideKey, {secretRecord("A", "sPW", kCanary)}, "protection ~A sPW: protected values cannot be written"},
      {lockRegistry, {record("A", "sLOCKED", "1")}, "locked ~A sLOCKED: another process keeps the registry"},
      {fill,
       {record("A", "sFULL", std::string(200'000, 'x'))},
       "diskFull ~A sFULL: there is no room for it, or"},
      {[&](bool isLost) {
         std::filesystem::remove(cacheFile());
         if (isLost) std::filesystem::create_symlink(dir_ / "none/none", cacheFile());
       },
       one, "cacheLost  : the settings cache could not be written"},
      {[&](bool isDamaged) { writeFile(cacheFile(), isDamaged ? "<damaged" : ""); }, one,
       "cacheUnreadable  : the settings cache cannot be read"},
      {[&](bool isLonger) {
         writeFile(cacheFile(), isLonger ? batchText({one[0], one[0]}) : "");
       },
       one, "cacheKept  : the settings cache holds more records"}};
  for (const Case& failure : cases) {
    std::filesystem::remove(cacheFile());
    std::filesystem::remove(dir_ / "lqhost.unsettled");
    failure.spoil(true);
    const Report report = pass(failure.batch, true);
    failure.spoil(false);
    const std::string text = problemText(report);
    EXPECT_TRUE(contains("\n" + text, "\n" + failure.problem)) << text << "\nwants " << failure.problem;
    const bool isOfRecord = failure.problem.find("  :") == std::string::npos;
    if (isOfRecord && !text.starts_with("tooLong")) {
      const std::string reason = failure.problem.substr(failure.problem.find(": ") + 2);
      EXPECT_TRUE(contains(printed_, reason)) << "the command says the same: " << printed_;
      EXPECT_EQ(report.outcome.get(), "partly");
    }
    EXPECT_EQ(report.records, 1);
    EXPECT_EQ(problemText(pass(one)), "") << "it is over";
  }
  // The machine's own trouble comes first, and a fault of the whole batch is told of every record.
  std::filesystem::remove(cacheFile());
  std::filesystem::create_symlink(dir_ / "none/none", cacheFile());
  fill(true);
  const Report both = pass({record("A", "sFIRST", "1"), record("A", "sFULL", std::string(200'000, 'y'))});
  fill(false);
  EXPECT_EQ(both.problems->size(), 4U) << problemText(both);
  EXPECT_TRUE(problemText(both).starts_with("cacheLost ")) << problemText(both);
  EXPECT_TRUE(contains(problemText(both), "diskFull ~A sFIRST")) << problemText(both);
  EXPECT_FALSE(contains(texts_, kCanary));
}

// What somebody changed on the machine, and nothing else; what is secret is not told.
TEST_F(HostReporting, WhatAPassCorrectedIsToldOnce) {
  const std::string until = std::to_string(std::time(nullptr) - 10);
  const OBGui::KeyList batch{record("A", "sSAME", "1"),         record("A", "sDRIFTED", "1"),
                             record("A", "sGONE", "1"),         record("A", "sNEXT", "1"),
                             secretRecord("A", "sPW", kCanary), disabled("A", "sOFF", "1")};
  const Report first = pass(batch);
  EXPECT_EQ(driftText(first), "") << "nothing was there before";
  EXPECT_EQ(first.digest.get(), [&] {
    std::string key;
    return sessionKeyFromHex(sessionKey_, key) ? batchDigest(batch, key) : "no key";
  }());
  const auto disturb = [] {
    setValue("A", "sDRIFTED", "2");
    removeValue("A", "sGONE");
    setValue("A", "sOFF", std::string("bin\0ary", 7));
    setValue("A", "sPW", "a local " + kCanary);
    setValue("A", "sNEXT", "2");
  };
  const std::string told = "~A sDRIFTED: 2 > 1\n~A sGONE: - > 1\n~A sPW: - > - secret\n~A sOFF: bin > -\n";
  disturb();
  OBGui::KeyList next = batch;
  next[3] = record("A", "sNEXT", "3");  // which the server has changed, too
  next.push_back(record("A", "sNEW", "1"));
  EXPECT_EQ(driftText(pass(next)), told);
  EXPECT_EQ(driftText(pass(next)), "") << "told once";
  disturb();
  EXPECT_EQ(driftText(refresh()), "~A sDRIFTED: 2 > 1\n~A sGONE: - > 1\n~A sNEXT: 2 > 3\n" + told.substr(35));
  EXPECT_EQ(newest().cause.get(), "refresh");
  disturb();
  {
    host::UnsettledWork push(host::Unsettled::kPush);
    EXPECT_EQ(driftText(pass(next)), "") << "may be what was pushed";
  }
  // What has expired is removed, which is no correction.
  next.push_back(record("A", "sNEW_UNTIL", std::to_string(std::time(nullptr) + 3600)));
  pass(next);
  next.back() = record("A", "sNEW_UNTIL", until);
  EXPECT_EQ(driftText(pass(next)), "");
  EXPECT_EQ(test_support::valueOf("A", "sNEW"), std::nullopt);
  EXPECT_FALSE(contains(texts_, kCanary));
  EXPECT_FALSE(contains(readFile(dir_ / "lqhost.report"), kCanary));
}

TEST(ReportBounds, WhatDoesNotFitIsCounted) {
  Report whole;
  HostReport::Problem problem;
  problem.keyPath = "~A";
  problem.reason = std::string(511, 'r') + "\xC3\xA4";
  HostReport::Verdict verdict;
  verdict.sentence = std::string(600, '<');
  HostReport::Drift drift;
  drift.before = std::string(600, '\x01');
  whole.problems = HostReport::ProblemList(201, problem);
  whole.verdicts = HostReport::VerdictList(150, verdict);
  whole.drifts = HostReport::DriftList(150, drift);
  whole.driftsOmitted = 5;
  whole.problems.edit()[0].valueName = std::string(300'000, 'n');
  const Report report = host::bounded(whole);
  std::string text;
  ASSERT_EQ(report.serialize(text, false), 0);
  EXPECT_LE(text.size(), HostReport::kMaxReportBytes);
  EXPECT_EQ(report.problems->size(), HostReport::kMaxEntries);
  EXPECT_EQ(report.problemsOmitted, 1) << "the one that takes it all";
  EXPECT_EQ(report.problems->front().reason.get(), std::string(511, 'r')) << "cut between characters";
  EXPECT_GT(report.verdicts->size(), 0U);
  EXPECT_EQ(report.verdicts->front().sentence->size(), HostReport::kMaxTextBytes);
  EXPECT_GT(report.verdictsOmitted + report.driftsOmitted, 5);
  EXPECT_EQ(report.verdicts->size() + static_cast<std::size_t>(report.verdictsOmitted), 150U);
  EXPECT_EQ(report.drifts->size() + static_cast<std::size_t>(report.driftsOmitted), 155U);
}

PassNews newsWith(const std::string& kind, HostReport::DriftList drifts = {}) {
  PassNews news;
  news.isWhole = true;
  news.batch.emplace();
  news.problems.push_back({"~A", "sVALUE", {kind.c_str(), "a reason"}});
  news.drifts = std::move(drifts);
  return news;
}

// One that could not be sent goes with the next, in the order of its number; one that may have arrived comes
// again as it was, so that nothing counts twice.
TEST_F(HostReporting, AReportIsKeptUntilItIsTaken) {
  const std::string file = dir_ / "lqhost.report";
  HostReport::Drift drift;
  drift.keyPath = "~A";
  {
    HostReporter reporter;
    reporter.tell(newsWith("locked", {drift}));  // nobody listens
    EXPECT_FALSE(reporter.standing().isTaken);
    EXPECT_TRUE(
        contains(host::standingText(reporter.standing()), "none was accepted yet; the newest is kept"));
  }
  EXPECT_EQ(modeOf(file), 0600U);
  host::KeptReport kept = host::readKeptReport();
  ASSERT_EQ(kept.report.problems->size(), 1U);
  kept.report.problems.edit()[0].since = 5;
  ASSERT_FALSE(host::writeKeptReport(kept).IsError());

  HostReporter again;
  PlayedServer server(address_, sessionKey_, {});
  bool lose = true;
  server.serveReports([&](const std::string& text) -> std::optional<PeerFrame> {
    const std::optional<PeerFrame> answer = keeping()(text);
    if (std::exchange(lose, false)) return std::nullopt;
    return answer;
  });
  EXPECT_EQ(again.ask().demand, HostReport::kDemandNothing);
  again.tell(newsWith("locked"));
  const std::vector<Report> sent = reports();
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].epoch.get(), kept.report.epoch.get());
  EXPECT_GT(sent[0].sequence, kept.reserved);
  EXPECT_EQ(sent[1].sequence, sent[0].sequence) << "as it was";
  EXPECT_EQ(sent[1].drifts->size(), 1U);
  EXPECT_EQ(sent[2].sequence, sent[1].sequence + 1);
  EXPECT_EQ(sent[2].drifts->size(), 0U) << "it was taken";
  EXPECT_EQ(sent[2].problems->at(0).since, 5) << "as long as it is the same";
  EXPECT_EQ(sent[2].clientId, kClientId);
  EXPECT_EQ(sent[0].cause.get() + sent[2].cause.get(), "asksync");
  EXPECT_TRUE(again.standing().isTaken);
  again.tell(newsWith("diskFull"));
  EXPECT_GT(newest().problems->at(0).since, 5) << "another kind";
  EXPECT_TRUE(host::standingText(host::readKeptReport().standing).starts_with("accepted 2"));

  // What it can be put besides.
  HostReport::Verdict verdict;
  verdict.module = "m";
  again.putVerdicts({verdict}, 3);
  EXPECT_EQ(newest().verdicts->size(), 1U);
  EXPECT_EQ(newest().asked, 3);
  HostReport::Memory memory;
  memory.state = "kept";
  again.putMemory(memory, HostReport::kCauseRollback);
  EXPECT_EQ(newest().memory->state.get(), "kept");
  const std::size_t before = reports().size();
  again.putMemory(memory, HostReport::kCauseRollback);
  EXPECT_EQ(reports().size(), before) << "it knows that";

  // A file that cannot be understood begins another count.
  writeFile(file, "lqhost-report-1 x");
  HostReporter lost;
  lost.ask();
  EXPECT_NE(newest().epoch.get(), kept.report.epoch.get());
  EXPECT_EQ(newest().problems->size(), 0U);
}

// What a server answers, or does not, is no pass's trouble; one without the service is left alone for a
// while.
TEST_F(HostReporting, WhatTheServerAnswersCountsForTheNextBatch) {
  PlayedServer server(address_, sessionKey_, {});
  int asked = 0;
  const auto ask = [&](HostReporter& reporter, const PlayedServer::ReportService& service) {
    server.serveReports([&, service](const std::string& text) {
      ++asked;
      return service(text);
    });
    return reporter.ask();
  };
  const auto sequenceIn = [](const std::string& text) {
    Report report;
    report.unserialize(text);
    EXPECT_EQ(report.isAsking, 0) << "there are no modules here";
    return report.sequence.get();
  };
  HostReporter reporter;
  reporter.noteAsking();
  const host::PassTerms demanding =
      ask(reporter, [&](const std::string& text) { return answered(sequenceIn(text), 300); });
  EXPECT_TRUE(demanding.demand == 300 && demanding.isReleased);
  const std::pair<PlayedServer::ReportService, const char*> unusable[] = {
      {[&](const std::string& text) { return answered(sequenceIn(text) + 1, 300); },
       "answered another report"},
      {[](const std::string&) {
         return PeerFrame{PeerSession::kMessage, batchText({})};
       },
       "answered with a OBGui"},
      {[](const std::string&) {
         return PeerFrame{PeerSession::kRefuseRequest, "come \x1b again"};
       },
       "come \\x1b again"}};
  for (const auto& [service, why] : unusable) {
    EXPECT_EQ(ask(reporter, service).demand, HostReport::kDemandNothing);
    reporter.tell(PassNews());  // tried at once only where the server has said something
    EXPECT_TRUE(contains(host::standingText(reporter.standing()), why)) << reporter.standing().whyNot;
  }
  EXPECT_EQ(asked, 6) << "one that may have arrived comes again first";
}

TEST_F(HostReporting, AServerWithoutTheServiceIsLeftAloneUntilABatchCame) {
  const PlayedServer server(address_, sessionKey_, {taking()});
  HostReporter reporter;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(reporter.ask().demand, HostReport::kDemandNothing);
  reporter.tell(PassNews());
  EXPECT_EQ(server.sessions(), 1);
  reporter.tell(newsWith("locked"));
  EXPECT_EQ(server.sessions(), 1) << "the one that has just said so";
  reporter.ask();
  EXPECT_EQ(server.sessions(), 2) << "a batch came: it may be another one by now";
  EXPECT_TRUE(contains(host::standingText(reporter.standing()), "the server takes no reports"));
}

// As a person runs it: asked and told, and what became of it stands in the status.
TEST_F(HostReporting, CommandsAndTheResidentHostReport) {
  const auto lqhost = [&](const std::string& command) {
    return runProgram({"sh", "-c", "exec $0 --registry $1 --log-file $2 " + command, programPath("lqhost"),
                       registryFile_, dir_ / "lqhost.log"});
  };
  expectOut(lqhost("status"), 1, {"\nreport        none was accepted yet; the newest waits to be sent\n"});
  const OBGui::KeyList batch{record("A", "sONE", "1")};
  {
    const PlayedServer without(address_, sessionKey_, {answering(batchText(batch)), taking()});
    EXPECT_EQ(lqhost("sync").exitCode, 0);
  }
  expectOut(lqhost("status"), 0,
            {"report        none was accepted yet; the newest is kept and sent later: the server"
             " takes no reports (cannot attach to"});
  PlayedServer server(address_, sessionKey_,
                      {answering(batchText(batch)), taking(), answering(batchText(batch)), taking()});
  server.serveReports(keeping());
  EXPECT_EQ(lqhost("sync").exitCode, 0);
  const std::vector<Report> sent = reports();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].cause.get() + sent[1].cause.get(), "asksync");
  EXPECT_EQ(sent[0].digest.get(), sent[1].digest.get()) << "of the batch before";
  EXPECT_EQ(sent[1].outcome.get() + sent[1].cache.get(), "appliedstored");
  EXPECT_EQ(sent[1].nextSync, 0) << "nothing is scheduled";
  EXPECT_EQ(sent[1].hostVersion->substr(0, 2), "0.");
  expectOut(lqhost("status"), 0, {"report        accepted 2"});

  const std::string listen = uniqueLoopbackAddress();
  BackgroundProgram resident({programPath("lqhost"), "--registry", registryFile_, "--log-file", "-", "run",
                              "--listen", listen, "--spread", "0", "--sync-every", "3600"},
                             dir_ / "run.log");
  ASSERT_TRUE(resident.waitForOutput("lqhost ready")) << resident.output();
  const auto waitFor = [&](const std::function<bool(const Report&)>& isIt) {
    for (int i = 0; i < 3000; ++i) {
      for (const Report& report : reports())
        if (isIt(report)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  };
  EXPECT_TRUE(waitFor([](const Report& report) { return report.cause.get() == "start"; }));
  EXPECT_TRUE(waitFor([](const Report& report) {
    return report.cause.get() == "sync" && report.nextSync > std::time(nullptr) + 3000;
  }));
  setValue("A", "sONE", "2");
  {
    CLqNetwork session;
    session.UseCredentials("client42", sessionKey_);
    lqsExecuteRemoteDllType remote;
    remote.setNames(kHostLibraryName, kHostEntryName);
    bool peerGone = false;
    ASSERT_FALSE(session
                     .Attach_RemoteDLL(MangleHostName(listen, "client42", programs::kHostServicePort,
                                                      programs::kHostServicePort),
                                       remote, "hub", 20, peerGone)
                     .IsError());
    OBGui::RegistryTaskResp push;
    push.keys = OBGui::KeyList{batch[0], record("Clients", "Other", "", "KEY")};
    std::unique_ptr<CNMessageBase> answer;
    ASSERT_FALSE(session.SendXMLMessage(push, 0, 20, peerGone).IsError());
    ASSERT_FALSE(session.ReceiveXMLMessage(nullptr, answer, nullptr, 0, 20, peerGone).IsError());
    session.Disconnect(20, peerGone);
  }
  EXPECT_TRUE(waitFor([](const Report& report) {
    return driftText(report) == "~A sONE: 2 > 1\n" &&
           contains(problemText(report), "forbidden ~Clients Other");
  }));
  EXPECT_EQ(resident.stop(), 0);
  // One that the stop has interrupted may come again as it was.
  for (std::size_t i = 1; i < reports().size(); ++i) {
    EXPECT_EQ(reports()[i].epoch.get(), sent[0].epoch.get());
    EXPECT_GE(reports()[i].sequence.get(), reports()[i - 1].sequence.get()) << reports()[i].cause.get();
  }
}

}  // namespace
