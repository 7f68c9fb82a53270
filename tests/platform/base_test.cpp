// The small services: the log, the thread pool and files.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "lqregistry/FXFile.h"
#include "lqregistry/LqThreadPool.h"
#include "lqregistry/ObLog.h"
#include "tests/support/test_support.h"

namespace {

using test_support::contains;
using test_support::modeOf;
using test_support::readFile;
using test_support::TempDir;

// --- log ---------------------------------------------------------------------------------------------------

class Log : public testing::Test {
 protected:
  ~Log() override { oblog::Configure({}); }
  oblog::Settings toFile(int threshold) {
    oblog::Settings settings;
    settings.threshold = threshold;
    settings.toStandardError = false;
    settings.file = dir_ / "host.log";
    return settings;
  }
  TempDir dir_;
};

TEST_F(Log, TheThresholdDecidesWhatReachesTheFileAndErrorsAlwaysDo) {
  const std::string lines[] = {"an error 1", "level 0", "plain", "level 2", "level 10"};
  std::size_t expected = 0;
  for (const int threshold : {-1, 0, kLqLogDefaultLevel, 7, 10}) {
    ASSERT_FALSE(oblog::Configure(toFile(threshold)).IsError());
    ObDebug log;
    log.Error("tag", "an error %d", 1);
    log.DebugLvl(0, "tag", "level 0");
    log.Debug("tag", "plain");
    log.DebugLvl(2, -123456, "tag", "level 2");
    log.DebugLvl(10, "tag", "level 10");
    const std::string text = readFile(dir_ / "host.log");
    ++expected;  // each threshold lets one more through
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<std::ptrdiff_t>(expected)) << text;
    for (std::size_t i = 0; i < expected; ++i) EXPECT_TRUE(contains(text, lines[i])) << text;
    oblog::Configure({});
    std::filesystem::remove(dir_ / "host.log");
  }
}

TEST_F(Log, AValueCannotForgeALine) {
  ASSERT_FALSE(oblog::Configure(toFile(1)).IsError());
  const oblog::Capture capture;
  const std::string hostile = "a\nE [forged] b\r\x1b[2J\x7f" + std::string(5000, 'x');
  ObEvent().Debug("tag\n", "value [%s]", hostile.c_str());
  const std::string text = readFile(dir_ / "host.log");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_NE(text.find("a\\x0aE [forged] b\\x0d\\x1b[2J\\x7fxxx"), std::string::npos) << text;
  EXPECT_NE(text.find("[tag\\x0a]"), std::string::npos) << text;
  EXPECT_EQ(capture.Lines().at(0).text, "value [" + hostile + "]") << "captured as formatted, and whole";
}

TEST_F(Log, TheFileIsTheOwnersSaysWhoWroteAndRotates) {
  oblog::Settings settings = toFile(1);
  settings.maxFileBytes = 2000;
  ASSERT_FALSE(oblog::Configure(settings).IsError());
  for (int i = 0; i < 100; ++i) ObEvent().Debug("the::tag", "line %d of a log that has to turn over", i);
  const std::string process = " " + std::to_string(getpid()) + " ";
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    ++files;
    EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
    EXPECT_LE(entry.file_size(), 2000U) << entry.path();
    EXPECT_NE(readFile(entry.path()).find(process), std::string::npos);
    EXPECT_NE(readFile(entry.path()).find("[the::tag] line"), std::string::npos);
  }
  EXPECT_EQ(files, 3U);
  EXPECT_NE(readFile(dir_ / "host.log").find("line 99 "), std::string::npos);
}

// --- thread pool -------------------------------------------------------------------------------------------

// Holds work items until it is opened.
class Gate {
 public:
  static void* pass(void* gate) {
    auto& self = *static_cast<Gate*>(gate);
    ++self.entered;
    self.isOpen_.wait(false);
    ++self.passed;
    return nullptr;
  }
  void open() {
    isOpen_ = true;
    isOpen_.notify_all();
  }
  std::atomic<int> entered{0};
  std::atomic<int> passed{0};

 private:
  std::atomic<bool> isOpen_{false};
};

TEST(ThreadPool, GrowsWithWhatWaitsShrinksAfterItAndRefusesNothingUntilItEnds) {
  Gate gate;
  Gate last;
  std::thread opener;
  {
    LqThreadPool pool;
    EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1) << "not started";
    EXPECT_FALSE(pool.initThreadPool("Pool", 0, 0, 3, 1));
    ASSERT_TRUE(pool.initThreadPool("Pool", 0, 2, 3, 1));
    // One runs; then each second one that waits brings a thread, until there are three.
    const std::size_t threads[] = {1, 1, 2, 3, 3};
    const int running[] = {1, 1, 2, 3, 3};
    for (std::size_t i = 0; i < std::size(threads); ++i) {
      EXPECT_EQ(pool.doWork(&Gate::pass, &gate), 0);
      EXPECT_EQ(pool.threadCount(), threads[i]) << i;
      while (gate.entered < running[i]) std::this_thread::yield();
    }
    for (int i = 0; i < 10'000; ++i) ASSERT_EQ(pool.doWork(&Gate::pass, &gate), 0) << i;
    EXPECT_EQ(pool.threadCount(), 3U);
    EXPECT_EQ(gate.entered, 3);
    EXPECT_EQ(pool.pendingCount(), 10'005U);

    gate.open();
    pool.waitIdle();
    EXPECT_EQ(gate.passed, 10'005);
    while (pool.threadCount() > 1) std::this_thread::yield();
    for (int i = 0; i < 50; ++i) EXPECT_EQ(pool.doWork(&Gate::pass, &last), 0) << i;
    opener = std::thread([&] { last.open(); });
  }
  EXPECT_EQ(last.passed, 50) << "the end waits for what was accepted";
  opener.join();
}

TEST(ThreadPool, RunsTheItemsOfALaneInTurnAndOtherLanesBesideThem) {
  Gate gate;
  LqThreadPool pool;
  ASSERT_TRUE(pool.initThreadPool("Pool", 300, 1, 3, 1));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(pool.doWork(&Gate::pass, &gate, "held"), 0);
  while (gate.entered < 1) std::this_thread::yield();
  // What is in another lane, or in none, does not wait for the gate.
  static std::string order;
  const auto note = [](void* letter) -> void* {
    order += static_cast<char>(reinterpret_cast<std::intptr_t>(letter));
    return nullptr;
  };
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    expected += static_cast<char>('a' + i % 26);
    EXPECT_EQ(pool.doWork(note, reinterpret_cast<void*>(std::intptr_t{'a'} + i % 26), "letters"), 0);
  }
  while (pool.pendingCount() > 4) std::this_thread::yield();
  EXPECT_EQ(order, expected);
  EXPECT_EQ(gate.entered, 1);
  EXPECT_EQ(pool.threadCount(), 2U) << "what waits for its turn needs no thread";
  gate.open();
  pool.waitIdle();
  EXPECT_EQ(gate.passed, 4);
}

TEST(ThreadPool, EndsInSpiteOfAnItemThatDoesNotAndSaysWhatHasNotRun) {
  // Left to a thread that outlives the pool, hence never freed before it has ended.
  static Gate hanging;
  static Gate never;
  const oblog::Capture log;
  {
    LqThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("Pool", 300, 1, 1, 1));
    EXPECT_TRUE(pool.drain(std::chrono::milliseconds(0))) << "nothing was queued";
    EXPECT_EQ(pool.doWork(&Gate::pass, &hanging, "lane 0"), 0);
    while (hanging.entered < 1) std::this_thread::yield();
    EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane 0"), 0);
    EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane 1"), 0);
    EXPECT_FALSE(pool.drain(std::chrono::milliseconds(20)));
    EXPECT_FALSE(pool.drain(std::chrono::milliseconds(0)));
    ASSERT_EQ(log.Lines().size(), 1U) << "what was logged once is known";
    EXPECT_EQ(log.Lines()[0].kind, oblog::Kind::kError);
    const std::string text = log.Lines()[0].text;
    EXPECT_TRUE(contains(text, "1 of its items run and 2 have not begun")) << text;
    EXPECT_TRUE(contains(text, "[lane 0] (2)") && contains(text, "[lane 1]")) << text;

    for (std::size_t i = 2; i < LqThreadPool::kMaxNamedLanes + 5; ++i)
      EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane " + std::to_string(i)), 0);
    pool.setExitWait(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(log.Lines().size(), 2U);
  EXPECT_TRUE(contains(log.Lines()[1].text, "and 5 more")) << log.Lines()[1].text;
  hanging.open();
  while (hanging.passed < 1) std::this_thread::yield();
  EXPECT_EQ(never.entered, 0);

  // In a forked child the threads are missing, and nothing waits for them.
  auto* const pool = new LqThreadPool;
  ASSERT_TRUE(pool->initThreadPool("Pool", 300, 1, 1, 1));
  const pid_t child = fork();
  if (child == 0) {
    delete pool;
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  delete pool;
}

// --- files -------------------------------------------------------------------------------------------------

TEST(Files, AreTheOwnersAndReplacedOrWrittenInto) {
  const TempDir dir;
  const std::string path = dir / "file";
  const auto write = [&path](std::uint32_t disposition, const std::string& text) {
    auto_handle handle;
    std::uint64_t written = 0;
    EXPECT_FALSE(FXFile::LQCreateFile(path, FXFile::kGenericWrite, FXFile::kShareRead, nullptr, disposition,
                                      FXFile::kAttributeNormal, nullptr, handle)
                     .IsError());
    EXPECT_FALSE(FXFile::LQWriteFile(handle, text.data(), text.size(), written).IsError());
    return readFile(path);
  };
  EXPECT_EQ(write(FXFile::kCreateAlways, "longer than what follows"), "longer than what follows");
  EXPECT_EQ(write(FXFile::kCreateAlways, "a new one"), "a new one");
  EXPECT_EQ(write(FXFile::kOpenExisting, "A"), "A new one");
  EXPECT_EQ(modeOf(path), 0600U);
}

}  // namespace
