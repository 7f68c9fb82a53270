// The small services: the log, the thread pool and files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

TEST(ThreadPool, KeepsItsBoundsUnderLoadShrinksAfterItAndEndsWhenEverythingAcceptedHasRun) {
  Gate gate;
  Gate last;
  std::thread opener;
  {
    LqThreadPool pool;
    EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1) << "not started";
    ASSERT_TRUE(pool.initThreadPool("Pool", 300, 1, 3, 1));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(pool.doWork(&Gate::pass, &gate), 0);
    while (gate.entered < 3) std::this_thread::yield();  // all three at once
    for (int i = 0; i < 300; ++i) EXPECT_EQ(pool.doWork(&Gate::pass, &gate), 0) << i;
    EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1);
    EXPECT_EQ(pool.threadCount(), 3U);
    EXPECT_EQ(gate.entered, 3);

    gate.open();
    pool.waitIdle();
    EXPECT_EQ(gate.passed, 303);
    while (pool.threadCount() > 1) std::this_thread::yield();
    for (int i = 0; i < 50; ++i) EXPECT_EQ(pool.doWork(&Gate::pass, &last), 0) << i;
    opener = std::thread([&] { last.open(); });
  }
  EXPECT_EQ(last.passed, 50);
  opener.join();
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
