// Registry and settings cache stay together: what a pass came to by the word of the server and the fate of
// the cache, and the note that stands between a pass or a push and the next refresh.
#include <future>

#include "common/file_lock.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cache_watch.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/service/command_socket.h"
#include "lqhost/service/resident_lock.h"
#include "lqhost/service/task_runs.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

using host::Unsettled;
using host::UnsettledWork;

// A joined machine whose server is played; the commands run as a person runs them.
class Settled : public ProductTest {
 protected:
  Settled() { join(); }

  ProgramResult lqhost(const std::string& command) const {
    return runProgram({"sh", "-c", "exec $0 --registry $1 --log-file $2 " + command, programPath("lqhost"),
                       registryFile_, dir_ / "lqhost.log"});
  }
  // A synchronisation in which the server sends these records and takes the acknowledgement like that.
  ProgramResult pass(const OBGui::KeyList& keys, const PlayedServer::Script& taker = taking(),
                     const std::string& command = "sync") const {
    const PlayedServer server(address_, sessionKey_, {answering(batchText(keys)), taker});
    return lqhost(command);
  }
  static void leaving(PlayedServer::Stage& stage) {
    if (stage.acceptAttach()) stage.takeMessage();
  }
  void expectStatus(int exitCode, const std::string& text) const {
    expectOut(lqhost("status"), exitCode, {text});
  }
  std::string noteFile() const { return dir_ / "lqhost.unsettled"; }

  const OBGui::KeyList one_{record("Limits", "nMAX", "1")};
  const OBGui::KeyList two_{record("Limits", "nMAX", "2"), record("Limits", "nMIN", "2")};
};

TEST_F(Settled, OnlyAnAcknowledgementThatTheServerRecordedCounts) {
  const auto forgetting = [](PlayedServer::Stage& stage) {
    if (!stage.acceptAttach()) return;
    stage.takeMessage();
    stage.peer.writeFrame(PeerSession::kRefuseRequest, "no \x1b[31mroom");
    stage.peer.answerGoodbye();
  };
  const std::tuple<PlayedServer::Script, int, const char*> cases[] = {
      {forgetting, 9, "not acknowledged: the server could not record the outcome: no \\x1b[31mroom"},
      {leaving, 9, "did not say whether it recorded that"},
      {[](PlayedServer::Stage&) {}, 9, "not acknowledged: the server could not be told"},
      {taking(), 0, "acknowledged: taskStatus 3 (applied)"}};
  for (const auto& [taker, exitCode, text] : cases) {
    expectOut(pass(one_, taker), exitCode, {text});
    expectStatus(exitCode, exitCode == 0 ? "applied and acknowledged" : "has not recorded");
    EXPECT_FALSE(std::filesystem::exists(noteFile())) << "the cache was stored: " << text;
  }
}

// As a person sees it on a terminal; the server answers once that says what is being waited for.
TEST_F(Settled, AnUploadIsKeptWhenTheServerSaysSo) {
  const std::tuple<std::string, int, const char*> cases[] = {
      {R"(<OBGui.RegistryTaskResp taskStatus="3"/>)", 0, "uploaded and kept by the server"},
      {R"(<OBGui.RegistryTaskResp taskStatus="1"/>)", 1, "were sent, but the server could not keep them"},
      {"", 1, "were sent, but the server gave no verdict"}};
  const std::string screen = dir_ / "screen";
  const std::string upload = "script -qefc \"$0 --registry $1 --log-file $2.log upload\" $2 </dev/null";
  for (const auto& [answer, exitCode, text] : cases) {
    PlayedServer server(address_, sessionKey_, {[&, answer = answer](PlayedServer::Stage& stage) {
                          leaving(stage);
                          while (!contains(readFile(screen), " records sent, waiting"))
                            std::this_thread::sleep_for(std::chrono::milliseconds(10));
                          if (answer.empty()) return;
                          stage.peer.writeFrame(PeerSession::kMessage, answer);
                          stage.peer.answerGoodbye();
                        }});
    const auto shown = runProgram({"sh", "-c", upload, programPath("lqhost"), registryFile_, screen});
    const std::size_t records = server.message<OBGui::RegistryTaskResp>(0).keys->size();
    expectOut(shown, exitCode, {" s\r\x1b[K", std::to_string(records) + " records " + text});
    EXPECT_FALSE(contains(shown.out, " 99 s")) << "one line a second";
  }
  if (kIsSanitized) return;  // what follows leaves no room for its stacks either
  const auto noThread = "ulimit -s 200000000000; " + upload;
  expectOut(runProgram({"sh", "-c", noThread, programPath("lqhost"), registryFile_, screen}), 1,
            {"lqhost: Resource temporarily unavailable"});
}

// Each way in which the cache can be left behind has its words and its exit code, and no refresh uses it.
TEST_F(Settled, ACacheThatWasNotReplacedIsSeenAndNotReapplied) {
  const auto expectUnsettled = [&](const OBGui::KeyList& keys, int exitCode, const std::string& text,
                                   const std::string& why) {
    expectOut(pass(keys), exitCode, {text});
    expectStatus(exitCode, why);
    expectErr(pass(keys, taking(), "refresh"), exitCode, {"synchronising instead of refreshing"});
    EXPECT_EQ(valueOf("Limits", "nMAX"), keys[0].value.get()) << "not what the cache says";
    EXPECT_EQ(lqhost("sync").exitCode, 1);
    expectStatus(exitCode, why);  // a pass without a batch changes nothing about it
    expectStatus(exitCode, "put off: a synchronisation has to come first");
  };
  EXPECT_EQ(pass(two_).exitCode, 0);
  expectUnsettled(one_, 8, "cache kept: ", "the settings cache was kept");
  expectOut(lqhost("sync --fresh"), 1, {"cache dropped: "});
  expectStatus(1, "the settings cache was dropped");
  writeFile(cacheFile(), "<damaged");
  expectUnsettled(two_, 10, "cache not replaced: ", "the settings cache cannot be read");
  std::filesystem::remove(cacheFile());
  std::filesystem::create_symlink(dir_ / "none/none", cacheFile());
  expectUnsettled(one_, 7, "cache lost: ", "the settings cache could not be written");

  EXPECT_EQ(pass(one_, taking(), "sync --fresh").exitCode, 0);
  expectStatus(0, "0 of 1 values differ");

  using enum host::RunOutcome;  // with a cache that is there again, which is no loss, and without one
  const std::tuple<host::RunOutcome, int, int> refreshes[] = {
      {kCacheLost, 0, 7}, {kCacheUnreadable, 0, 10}, {kFailed, 1, 1}, {kPartly, 1, 1}, {kSkipped, 0, 1}};
  for (const auto& [outcome, with, exitCode] : refreshes) {
    const oblog::Capture log;
    host::noteRun(host::kRefreshTask, 1, 0, 0, outcome);
    EXPECT_EQ(log.Lines().size(), 1U) << "how it ended, and no complaint";
    expectStatus(with, "0 of 1 values differ");
    std::filesystem::rename(cacheFile(), cacheFile() + ".aside");
    expectStatus(exitCode, "there is no cache yet");
    std::filesystem::rename(cacheFile() + ".aside", cacheFile());
  }
  const host::CacheWatch watch;
  EXPECT_EQ(watch.fate(1), host::CacheFate::kLost) << "it would have been replaced";

  {
    host::ProductLibrary product;
    host::Passes passes(product);
    const LqPassLock another("pass");  // of this thread, which is not waited for
    const host::CommandResult refused = host::synchroniseNow(passes, host::OldCache::kDropped);
    EXPECT_TRUE(contains(refused.err, cacheFile() + " was not removed: ")) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(noteFile())) << "nothing has changed";
  }
  writeFile(cacheFile(), batchText({record("A", "sLONG", std::string(200'000, 'x')), record("A", "s", "1"),
                                    record("A", "sCOHDbStatus", "1"), disabled("A", "sOFF", "1")}));
  setValue("A", "sOFF", "2");
  expectStatus(6, "~A s is absent, should be \"1\"\n  ~A sOFF is \"2\", should be absent\n");
  EXPECT_EQ(lqhost("refresh").exitCode, 0) << "nothing stands in its way any more";
  // A refresh that has no room for the cache: registry and log fit.
  const std::string command = "ulimit -f 100; exec \"$0\" --registry \"$1\" --log-file - refresh";
  EXPECT_EQ(runProgram({"sh", "-c", command, programPath("lqhost"), registryFile_}).exitCode, 7);
  expectStatus(7, "unsettled     the settings cache could not be written");
  std::filesystem::remove(registryFile_ + ".key");
  expectStatus(7, "\nprotection    " + registryFile_ + ".key: ");
}

// A pass of another process is killed after it has applied a batch, while a refresh waits for it.
TEST_F(Settled, ARefreshLooksForANoteWhenItsTurnHasCome) {
  ASSERT_EQ(pass(one_).exitCode, 0);
  setValue("Limits", "nMAX", "applied by the other");
  std::future<test_support::ProgramResult> refreshed;
  {
    const auto others = programs::FileLock::tryFor(dir_ / "lqhost.pass");
    ASSERT_TRUE(others.isHeld());
    refreshed = std::async(std::launch::async, [this] { return lqhost("refresh"); });
    // However long this is, whoever waits has not looked yet; whoever does not wait has most likely ended.
    refreshed.wait_for(std::chrono::milliseconds(300));
    const UnsettledWork killed(Unsettled::kPass);
  }
  EXPECT_TRUE(contains(refreshed.get().err, "synchronising instead of refreshing"));
  EXPECT_EQ(valueOf("Limits", "nMAX"), "applied by the other");
}

// Of two that overlap the last to begin decides; every doubt leaves the note standing.
TEST_F(Settled, ANoteGoesOnlyWithTheWorkThatWroteItLast) {
  const auto standing = [] {
    const auto note = host::standingNote();
    return note ? std::optional(note->why) : std::nullopt;
  };
  {
    UnsettledWork pass(Unsettled::kPass);
    EXPECT_EQ(standing(), Unsettled::kPass);
    writeFile(cacheFile(), batchText({}));
    expectStatus(0, "last refresh  never\n  next        no resident host is running\nunsettled     a sync");
    UnsettledWork push(Unsettled::kPush);
    pass.settle();
    EXPECT_EQ(standing(), Unsettled::kPush) << "the pass began before the push";
    pass.restore();
    EXPECT_EQ(standing(), Unsettled::kPush);
  }
  UnsettledWork failing(Unsettled::kPass);
  failing.restore();
  EXPECT_EQ(standing(), Unsettled::kPush);
  UnsettledWork following(Unsettled::kPass);
  following.settle();
  EXPECT_EQ(standing(), std::nullopt);
  following.leave(Unsettled::kCacheLost);
  EXPECT_EQ(standing(), std::nullopt) << "its note is gone already";

  writeFile(noteFile(), "cache-kept 86400 token\n");
  UnsettledWork again(Unsettled::kPass);
  again.leave(Unsettled::kCacheKept);
  // Since the first.
  EXPECT_TRUE(contains(host::unsettledText(*host::standingNote()), "1970-01-02T00:00:00Z"));
  writeFile(noteFile(), "");
  EXPECT_EQ(standing(), Unsettled::kPass) << "a note that cannot be understood is one";
  expectStatus(1, "has not stored the settings cache");

  // Where it cannot be written it stands in memory, for this process.
  std::filesystem::remove(noteFile());
  std::filesystem::create_directory(noteFile());
  UnsettledWork unwritten(Unsettled::kPush);
  EXPECT_TRUE(contains(unwritten.error().AsString(), "lqhost.unsettled")) << unwritten.error().AsString();
  EXPECT_EQ(standing(), Unsettled::kPush);
  expectErr(lqhost("sync --fresh"), 1, {"could not be dropped first: ", "lqhost.unsettled"});
  EXPECT_TRUE(std::filesystem::exists(cacheFile())) << "a kill would leave neither a cache nor a note";
  expectErr(pass(one_), 0, {"could not be noted on disk"});  // it is done all the same
  std::filesystem::remove(noteFile());
  unwritten.settle();
  EXPECT_EQ(standing(), std::nullopt);
}

// A host that holds the lock and does not answer is not worked beside, whoever asks.
TEST_F(Settled, AResidentHostThatDoesNotAnswerIsSaidSo) {
  ASSERT_FALSE(host::becomeResident().IsError());
  const auto unanswered = host::answerOfResident(host::kAskSync, std::chrono::milliseconds(200));
  expectErr({unanswered.value().exitCode, "", unanswered->err}, 1, {"host, which does not answer"});

  // What the socket's threads use outlives it.
  const std::string longer(5'000'000, 'o');  // than a socket holds at a time
  const auto echo = [&](const std::string& question) {
    if (question != host::kAskSync) throw std::runtime_error("it ends in the middle of its work");
    return host::CommandResult{4, longer + question + "\x1b\n", "err\x1b\n"};
  };
  host::ResidentSocket socket;
  ASSERT_FALSE(socket.open().IsError());
  ASSERT_FALSE(socket.serve(echo).IsError());
  const auto sync = lqhost("sync");
  EXPECT_TRUE(sync.exitCode == 4 && sync.out == longer + "sync\\x1b\n" && sync.err == "err\\x1b\n");
  expectErr(lqhost("upload"), 1, {"ended before it had answered; what it did is in its log"});
  expectOut(lqhost("status"), 1, {"  next        not noted yet", "is too busy to say how it is"});
  EXPECT_TRUE(host::mayAsk(0, 7) && host::mayAsk(7, 7) && !host::mayAsk(7, 0) && !host::mayAsk(8, 7));
  EXPECT_EQ(host::waitingCallbacksText(9999), "9999 wait in the resident host");
  EXPECT_TRUE(contains(host::waitingCallbacksText(10000), "WARNING"));
  host::ProductLibrary product;  // a product of another version lacks what this host looks for
  EXPECT_TRUE(product.find("No_OnTimer") == nullptr && contains(product.error().AsString(), "No_OnTimer"));
}

}  // namespace
