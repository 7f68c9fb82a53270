// The small services: the log, the thread pool, files and paths.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/FXFile.h"
#include "platform/LqThreadPool.h"
#include "platform/ObLog.h"
#include "tests/support/test_support.h"

namespace {

using test_support::readFile;
using test_support::TempDir;
using test_support::writeFile;

unsigned modeOf(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? file.st_mode & 0777U : 0;
}

// Looks until the condition holds; a minute is for machines that stand still, not for the test.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

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
  static void writeOneOfEach(const ObDebug& log) {
    log.Error("tag", "an error %d", 1);
    log.DebugLvl(0, "tag", "level 0");
    log.Debug("tag", "plain");
    log.DebugLvl(2, -123456, "tag", "level 2");
    log.DebugLvl(10, "tag", "level 10");
  }
  TempDir dir_;
};

TEST_F(Log, TheThresholdDecidesWhatReachesTheFileAndErrorsAlwaysDo) {
  const struct {
    int threshold;
    std::vector<std::string> lines;
  } cases[] = {{-1, {"an error 1"}},
               {0, {"an error 1", "level 0"}},
               {kLqLogDefaultLevel, {"an error 1", "level 0", "plain"}},
               {7, {"an error 1", "level 0", "plain", "level 2"}},
               {10, {"an error 1", "level 0", "plain", "level 2", "level 10"}}};
  for (const auto& c : cases) {
    ASSERT_FALSE(oblog::Configure(toFile(c.threshold)).IsError());
    writeOneOfEach(ObDebug());
    const std::string text = readFile(dir_ / "host.log");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<std::ptrdiff_t>(c.lines.size()))
        << text;
    for (const auto& line : c.lines) EXPECT_NE(text.find(line), std::string::npos) << text;
    oblog::Configure({});
    std::filesystem::remove(dir_ / "host.log");
  }
}

TEST_F(Log, ACaptureSeesEveryLineWhateverTheThreshold) {
  ASSERT_FALSE(oblog::Configure(toFile(0)).IsError());
  ObDebug log;
  log.Initialize(281908688, 0, false, "");
  const oblog::Capture all;
  {
    const oblog::Capture milestones(2);
    writeOneOfEach(log);
    EXPECT_EQ(milestones.Lines().size(), 4U);
  }
  const auto lines = all.Lines();
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0].kind, oblog::Kind::kError);
  EXPECT_EQ(lines[2].kind, oblog::Kind::kPlain);
  EXPECT_EQ(lines[2].logId, 281908688U);
  EXPECT_EQ(lines[3].kind, oblog::Kind::kLevelled);
  EXPECT_EQ(lines[3].level, 2);
  EXPECT_EQ(lines[3].context, -123456);
  EXPECT_EQ(lines[4].tag, "tag");
  EXPECT_EQ(readFile(dir_ / "host.log").find("plain"), std::string::npos);
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

TEST_F(Log, SettingsThatCannotBeUsedLeaveThoseInForce) {
  ASSERT_FALSE(oblog::Configure(toFile(1)).IsError());
  oblog::Settings bad = toFile(1);
  bad.file = "/dev/null/no/file";
  const CWmError error = oblog::Configure(bad);
  EXPECT_TRUE(error.IsError());
  EXPECT_NE(std::string(error.AsString()).find(bad.file), std::string::npos) << error.AsString();
  ObEvent().Debug("tag", "still here");
  EXPECT_NE(readFile(dir_ / "host.log").find("still here"), std::string::npos);
}

// --- thread pool -------------------------------------------------------------------------------------------

// Holds work items until it is opened.
class Gate {
 public:
  static void* pass(void* gate) {
    auto& self = *static_cast<Gate*>(gate);
    std::unique_lock lock(self.mutex_);
    self.mostInside_ = std::max(self.mostInside_, ++self.inside_);
    self.changed_.wait(lock, [&] { return self.open_; });
    --self.inside_;
    ++self.passed_;
    return nullptr;
  }
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  int inside() { return locked(inside_); }
  int mostInside() { return locked(mostInside_); }
  int passed() { return locked(passed_); }

 private:
  int locked(const int& value) {
    const std::lock_guard lock(mutex_);
    return value;
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int inside_ = 0;
  int mostInside_ = 0;
  int passed_ = 0;
};

TEST(ThreadPool, KeepsItsBoundsUnderLoadAndShrinksAfterIt) {
  Gate gate;
  LqThreadPool pool;
  EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1) << "not started";
  ASSERT_TRUE(pool.initThreadPool("Pool", 300, 1, 3, 1));
  EXPECT_FALSE(pool.initThreadPool("Pool", 300, 1, 3, 1)) << "started already";
  EXPECT_EQ(pool.threadCount(), 1U);

  for (int i = 0; i < 3; ++i) ASSERT_EQ(pool.doWork(&Gate::pass, &gate), 0);
  ASSERT_TRUE(eventually([&] { return gate.inside() == 3; })) << "three items did not run at once";
  for (int i = 0; i < 300; ++i) ASSERT_EQ(pool.doWork(&Gate::pass, &gate), 0) << i;
  EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1);
  EXPECT_EQ(pool.threadCount(), 3U);

  gate.open();
  pool.waitIdle();
  EXPECT_EQ(gate.passed(), 303);
  EXPECT_EQ(gate.mostInside(), 3);
  EXPECT_TRUE(eventually([&] { return pool.threadCount() == 1; }));
  EXPECT_EQ(pool.doWork(&Gate::pass, &gate), 0);
  pool.waitIdle();
  EXPECT_EQ(gate.passed(), 304);
}

TEST(ThreadPool, EndsOnlyWhenEverythingAcceptedHasRun) {
  Gate gate;
  int accepted = 0;
  std::thread opener;
  {
    LqThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("Pool", 50, 0, 2, 0));
    while (pool.doWork(&Gate::pass, &gate) == 0) ++accepted;
    opener = std::thread([&] { gate.open(); });
  }
  EXPECT_EQ(gate.passed(), accepted);
  EXPECT_GE(accepted, 50);
  opener.join();
}

TEST(ThreadPool, RefusesNumbersThatMakeNoSenseAndNamesItsThreads) {
  LqThreadPool pool;
  EXPECT_FALSE(pool.initThreadPool(nullptr, 1, 1, 1, 1));
  EXPECT_FALSE(pool.initThreadPool("Pool", 0, 1, 1, 1));
  EXPECT_FALSE(pool.initThreadPool("Pool", 1, 1, 0, 0));
  EXPECT_FALSE(pool.initThreadPool("Pool", 1, 1, 1, 2));
  ASSERT_TRUE(pool.initThreadPool("RegistryManagerClient", 1, 1, 1, 1));
  char name[16] = {};
  ASSERT_EQ(pool.doWork(
                [](void* out) -> void* {
                  pthread_getname_np(pthread_self(), static_cast<char*>(out), sizeof name);
                  return nullptr;
                },
                name),
            0);
  pool.waitIdle();
  EXPECT_STREQ(name, "RegistryManager");
}

// --- files and paths ---------------------------------------------------------------------------------------

CWmError open(const std::string& path, std::uint32_t access, std::uint32_t disposition, auto_handle& handle) {
  return FXFile::LQCreateFile(path, access, FXFile::kShareRead, nullptr, disposition,
                              FXFile::kAttributeNormal, nullptr, handle);
}

TEST(Files, CreateAlwaysReplacesAndOpenExistingDoesNot) {
  const TempDir dir;
  const std::string path = dir / "file";
  auto_handle handle;
  std::uint64_t written = 0;
  writeFile(dir / "longer", "what was there before");
  std::filesystem::copy(dir / "longer", dir / "kept");
  for (const std::string& target : {path, dir / "longer"}) {
    ASSERT_FALSE(open(target, FXFile::kGenericWrite, FXFile::kCreateAlways, handle).IsError());
    ASSERT_FALSE(FXFile::LQWriteFile(handle, "a\0b", 3, written).IsError());
    EXPECT_EQ(readFile(target), std::string("a\0b", 3));
  }
  EXPECT_EQ(modeOf(path), 0600U);
  ASSERT_FALSE(open(dir / "kept", FXFile::kGenericWrite, FXFile::kOpenExisting, handle).IsError());
  ASSERT_FALSE(FXFile::LQWriteFile(handle, "WHAT", 4, written).IsError());
  EXPECT_EQ(readFile(dir / "kept"), "WHAT was there before");
}

TEST(Files, EveryFaultIsAnErrorThatNamesTheFile) {
  const TempDir dir;
  const auto expectNamed = [](const CWmError& error, const std::string& name) {
    EXPECT_EQ(error.GetCode(), kLqErrFile);
    EXPECT_NE(std::string(error.AsString()).find(name), std::string::npos) << error.AsString();
  };
  auto_handle handle;
  std::uint32_t got = 1;
  std::uint64_t put = 1;
  char buffer[8];
  const std::string folder = dir.path().string();
  expectNamed(open(dir / "missing", FXFile::kGenericRead, FXFile::kOpenExisting, handle), dir / "missing");
  expectNamed(open(dir / "no/folder", FXFile::kGenericWrite, FXFile::kCreateAlways, handle),
              dir / "no/folder");
  expectNamed(open(folder, FXFile::kGenericWrite, FXFile::kCreateAlways, handle), folder);
  expectNamed(open(dir / "file", 0x10000000, FXFile::kCreateAlways, handle), dir / "file");
  expectNamed(open(dir / "file", FXFile::kGenericWrite, 9, handle), dir / "file");
  EXPECT_FALSE(handle.isValid());
  EXPECT_TRUE(FXFile::LQReadFile(handle, buffer, sizeof buffer, got).IsError());

  ASSERT_FALSE(open(folder, FXFile::kGenericRead, FXFile::kOpenExisting, handle).IsError());
  expectNamed(FXFile::LQReadFile(handle, buffer, sizeof buffer, got), folder);
  ASSERT_FALSE(open("/dev/full", FXFile::kGenericWrite, FXFile::kOpenExisting, handle).IsError());
  expectNamed(FXFile::LQWriteFile(handle, "x", 1, put), "/dev/full");
  EXPECT_EQ(put, 0U);
}

TEST(Paths, AppendPutsOneSeparatorBetween) {
  const struct {
    const char* directory;
    const char* name;
    const char* joined;
  } cases[] = {{"", "file", "file"},       {"/", "file", "/file"}, {"/a", "file", "/a/file"},
               {"/a/", "file", "/a/file"}, {"a b", "c", "a b/c"},  {"/a//", "file", "/a//file"},
               {"/a", "sub/f", "/a/sub/f"}};
  for (const auto& c : cases) {
    std::string path = c.directory;
    EXPECT_TRUE(FXPath::Append(path, c.name));
    EXPECT_EQ(path, c.joined);
  }
  std::string tooLong(4090, 'd');
  EXPECT_FALSE(FXPath::Append(tooLong, "a-name"));
  EXPECT_EQ(tooLong, std::string(4090, 'd'));
}

}  // namespace
