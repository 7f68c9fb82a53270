// The small services: the log, the thread pool, and files: replaced, appended to, trusted.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <optional>
#include <thread>

#include "lqregistry/CWmLibrary.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqThreadPool.h"
#include "lqregistry/ObLog.h"
#include "tests/support/expectations.h"

namespace {

constexpr uid_t kNobody = 65534;

// --- log ---------------------------------------------------------------------------------------------------

class Log : public testing::Test {
 protected:
  ~Log() override { EXPECT_FALSE(oblog::Configure({}).IsError()); }
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
    const oblog::Capture capture;
    ObDebug log;
    log.Error("tag", "an error %d", 1);
    log.DebugLvl(0, "tag", "level 0");
    log.Debug("tag", "plain");
    log.DebugLvl(2, -123456, "tag", "level 2");
    log.DebugLvl(10, "tag", "level 10");
    const auto captured = capture.Lines();
    ASSERT_EQ(captured.size(), std::size(lines));
    for (const oblog::Line& line : captured) EXPECT_EQ(line.context, line.level == 2 ? -123456 : 0);
    const std::string text = readFile(dir_ / "host.log");
    ++expected;  // each threshold lets one more through
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<std::ptrdiff_t>(expected)) << text;
    for (std::size_t i = 0; i < expected; ++i) EXPECT_TRUE(contains(text, lines[i])) << text;
    EXPECT_FALSE(oblog::Configure({}).IsError());
    std::filesystem::remove(dir_ / "host.log");
  }
}

TEST_F(Log, AValueCannotForgeALine) {
  ASSERT_FALSE(oblog::Configure(toFile(1)).IsError());
  const oblog::Capture capture;
  // The last ones are controls to a terminal as well: in UTF-8, and raw.
  const std::string hostile =
      "a\nE [forged] b\r\x1b[2J\x7f" + std::string(5000, 'x') + "\xc2\x9b\x9b\xc3\xa9\xef\xbf\xbf\\";
  ObEvent().Debug("tag\n", "value [%s]", hostile.c_str());
  const std::string text = readFile(dir_ / "host.log");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_TRUE(contains(text, "[tag\\x0a] value [a\\x0aE [forged] b\\x0d\\x1b[2J\\x7fxxx")) << text;
  EXPECT_NE(text.find("x\\xc2\\x9b\\x9b\xc3\xa9\\xef\\xbf\\xbf\\]"), std::string::npos) << text;
  EXPECT_EQ(capture.Lines().at(0).text, "value [" + hostile + "]") << "captured as formatted, and whole";
  ObEvent().Error("tag", "no character %lc", wint_t{0xD800});
  EXPECT_EQ(capture.Lines().at(1).text, "no character %lc") << "what cannot be formatted";
}

TEST_F(Log, TheFileIsTheOwnersSaysWhoWroteAndRotates) {
  oblog::Settings settings = toFile(10);
  settings.maxFileBytes = 2000;
  ASSERT_FALSE(oblog::Configure(settings).IsError());
  for (int i = 0; i < 100; ++i) ObEvent().DebugLvl(10, "the::tag", "line %d of a log that turns over", i);
  const std::string process = " " + std::to_string(getpid()) + " ";
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    ++files;
    EXPECT_EQ(modeOf(entry.path()), 0600U) << entry.path();
    EXPECT_LE(entry.file_size(), 2000U) << entry.path();
    const std::string text = readFile(entry.path());
    EXPECT_TRUE(contains(text, process) && contains(text, "[the::tag] line")) << text;
  }
  EXPECT_EQ(files, 3U);
  EXPECT_NE(readFile(dir_ / "host.log").find("line 99 "), std::string::npos);
}

TEST_F(Log, WhatIsNoFileOfItsOwnIsRefusedAtOnce) {
  writeFile(dir_ / "victim", "precious\n");
  std::filesystem::create_symlink(dir_ / "victim", dir_ / "link");
  ASSERT_EQ(mkfifo((dir_ / "pipe").c_str(), 0600), 0);
  for (const char* name : {"link", "pipe"}) {
    oblog::Settings settings = toFile(1);
    settings.file = dir_ / name;
    EXPECT_TRUE(contains(oblog::Configure(settings).AsString(), dir_ / name + ": not a regular file"));
    ObEvent().Error("tag", "goes to where the log was before");
  }
  EXPECT_EQ(readFile(dir_ / "victim"), "precious\n");
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
  // Unless the system has no thread to give: then the caller hears of it, each time.
  const auto withoutThreads = [] {
    const rlimit none{};
    const bool isShort = setrlimit(RLIMIT_NPROC, &none) == 0 && (geteuid() != 0 || setuid(kNobody) == 0);
    LqThreadPool pool;
    const auto refuses = [&] { return pool.doWork(&Gate::pass, nullptr, "lane") == -1; };
    return isShort && pool.initThreadPool("Pool", 0, 1, 1, 0) && refuses() && refuses() ? 0 : 1;
  };
  EXPECT_EQ(endOf(startChild(withoutThreads)), 0);
  Gate gate;
  Gate last;
  std::thread opener;
  {
    LqThreadPool pool;
    EXPECT_EQ(pool.doWork(&Gate::pass, &gate), -1) << "not started";
    EXPECT_FALSE(pool.initThreadPool("Pool", 0, 0, 3, 1));
    ASSERT_TRUE(pool.initThreadPool("Pool", 0, 2, 3, 1));
    // One runs; then each second one that waits brings a thread, until there are three.
    for (const int threads : {1, 1, 2, 3, 3}) {
      EXPECT_EQ(pool.doWork(&Gate::pass, &gate), 0);
      EXPECT_EQ(pool.threadCount(), static_cast<std::size_t>(threads));
      while (gate.entered < threads) std::this_thread::yield();
    }
    for (int i = 0; i < 10'000; ++i) ASSERT_EQ(pool.doWork(&Gate::pass, &gate), 0) << i;
    EXPECT_TRUE(pool.threadCount() == 3 && gate.entered == 3);
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
  EXPECT_TRUE(order == expected && gate.entered == 1) << order;
  EXPECT_TRUE(pool.isRunning("held") && !pool.isRunning("letters"));
  EXPECT_EQ(pool.threadCount(), 2U) << "what waits for its turn needs no thread";
  gate.open();
  pool.waitIdle();
  EXPECT_EQ(gate.passed, 4);
}

TEST(ThreadPool, TellsItsObserverWhatItemsThrow) {
  std::string heard;  // one thread runs everything
  Gate gate;
  LqThreadPool pool;
  ASSERT_TRUE(pool.initThreadPool("Pool", 300, 1, 1, 1));
  const auto throwing = [](void* what) -> void* {
    if (what == nullptr) throw 7;
    throw std::runtime_error(static_cast<const char*>(what));
  };
  char text[] = "no such spooler";
  const auto throwAll = [&] {
    for (const char* lane : {"a", "b"}) EXPECT_EQ(pool.doWork(throwing, text, lane), 0);
    EXPECT_EQ(pool.doWork(throwing, nullptr), 0);
    pool.waitIdle();
  };
  throwAll();
  pool.setFaultObserver([&](const std::string& lane, const char* what) {
    heard += "[" + lane + "] " + what + (pool.isRunning(lane) ? ", and runs; " : "; ");
    if (lane == "a") throw std::runtime_error("an observer's own");
  });
  throwAll();
  pool.setFaultObserver({});
  throwAll();
  EXPECT_EQ(heard, std::string("[a] ") + text + ", and runs; [b] " + text + ", and runs; [] " +
                       LqThreadPool::kNamelessFault + "; ");
  // A lane whose next item waits for the only thread does not run.
  for (const char* lane : {"held", "next"}) EXPECT_EQ(pool.doWork(&Gate::pass, &gate, lane), 0);
  EXPECT_EQ(pool.doWork(&Gate::pass, &gate, "held"), 0);
  while (gate.entered < 1) std::this_thread::yield();
  EXPECT_TRUE(pool.isRunning("held") && !pool.isRunning("next"));
  gate.open();
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
    static Gate open;
    open.open();
    for (int i = 0; i < 100; ++i) {  // the thread sleeps most of the times
      std::optional<LqThreadPool::HandOver> together(pool);
      EXPECT_EQ(pool.doWork(&Gate::pass, &open), 0);
      together.reset();
      pool.waitIdle();  // because the end of it wakes whoever sleeps
    }
    EXPECT_EQ(pool.doWork(&Gate::pass, &hanging, "lane 0"), 0);
    while (hanging.entered < 1) std::this_thread::yield();
    EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane 0"), 0);
    EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane 1"), 0);
    for (const int wait : {20, 0}) EXPECT_FALSE(pool.drain(std::chrono::milliseconds(wait)));
    EXPECT_EQ(log.Lines().at(0).kind, oblog::Kind::kError);
    const std::string text = log.Lines()[0].text;
    EXPECT_TRUE(contains(text, "1 of its items run and 2 have not begun")) << text;
    EXPECT_TRUE(contains(text, "[lane 0] (2)") && contains(text, "[lane 1]")) << text;

    for (std::size_t i = 2; i < LqThreadPool::kMaxNamedLanes + 5; ++i)
      EXPECT_EQ(pool.doWork(&Gate::pass, &never, "lane " + std::to_string(i)), 0);
    pool.setExitWait(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(log.Lines().size(), 2U) << "what was logged once is known";
  EXPECT_TRUE(contains(log.Lines()[1].text, "and 5 more")) << log.Lines()[1].text;
  hanging.open();
  while (hanging.passed < 1) std::this_thread::yield();
  EXPECT_EQ(never.entered, 0);

  // In a forked child the threads are missing, and nothing waits for them.
  auto* const pool = new LqThreadPool;
  ASSERT_TRUE(pool->initThreadPool("Pool", 300, 1, 1, 1));
  EXPECT_EQ(endOf(startChild([pool] {
              delete pool;
              return 0;
            })),
            0);
  delete pool;
}

// --- files -------------------------------------------------------------------------------------------------

class Files : public testing::Test {
 protected:
  CWmError open(std::uint32_t access, std::uint32_t disposition, auto_handle& handle) const {
    return FXFile::LQCreateFile(path_, access, FXFile::kShareRead, nullptr, disposition,
                                FXFile::kAttributeNormal, nullptr, handle);
  }
  // By the codes as they stand in modules that were compiled long ago.
  CWmError write(const std::string& text, std::uint32_t disposition = 2) const {
    auto_handle handle;
    std::uint64_t written = 0;
    CWmError error = open(0x40000000, disposition, handle);
    if (!error.IsError()) error = FXFile::LQWriteFile(handle, text.data(), text.size(), written);
    EXPECT_EQ(written, error.IsError() ? 0 : text.size()) << error.AsString();
    return error;
  }
  // How many files lie in the folder; the file alone unless something was left behind.
  std::ptrdiff_t fileCount() const {
    return std::distance(std::filesystem::directory_iterator(dir_.path()), {});
  }

  TempDir dir_;
  std::string path_ = dir_ / std::string(NAME_MAX, 'f');  // the longest name
};

TEST_F(Files, AreTheOwnersAndReplacedOrWrittenInto) {
  EXPECT_FALSE(write("longer than what follows").IsError() || write("a new one").IsError());
  EXPECT_EQ(readFile(path_), "a new one");
  EXPECT_FALSE(write("A", FXFile::kOpenExisting).IsError());
  EXPECT_TRUE(readFile(path_) == "A new one" && modeOf(path_) == 0600U);
  {
    auto_handle unused;
    ASSERT_FALSE(open(FXFile::kGenericWrite, FXFile::kCreateAlways, unused).IsError());
    EXPECT_EQ(readFile(path_), "A new one") << "until the new text is there";
  }
  EXPECT_TRUE(!FXFile::AppendContents(path_, "!").IsError() && readFile(path_) == "A new one!");
  std::string text;
  EXPECT_TRUE(!FXFile::ReadContents(path_, text, 10).IsError() && text == "A new one!");
  EXPECT_TRUE(FXFile::ReadContents(path_, text, 9).IsError()) << "more than that";
  EXPECT_TRUE(!FXFile::ReplaceContents(path_, "").IsError() && readFile(path_).empty());
  auto_handle late;
  // Only the contract's codes mean something; the last of these is a file that nobody can delete.
  for (const auto& [error, reason] :
       {std::pair(open(0, FXFile::kCreateAlways, late), "unknown access code 0"),
        std::pair(open(FXFile::kGenericWrite, 1, late), "unknown disposition code 1"),
        std::pair(open(FXFile::kGenericRead, FXFile::kCreateAlways, late), "opened for writing only"),
        std::pair(FXFile::DeleteMatchingFiles(dir_.path(), "*", 1), "unknown deletion flags 1"),
        std::pair(FXFile::DeleteMatchingFiles("/proc/self", "comm", 0), "deleting \"comm\" in /proc/self")})
    EXPECT_TRUE(contains(error.AsString(), reason)) << reason;
  std::string longest(PATH_MAX - 3, 'd');
  EXPECT_TRUE(FXPath::Append(longest, "f") && !FXPath::Append(longest, "f") && longest.ends_with("d/f"));
  EXPECT_EQ(fileCount(), 1);
  ASSERT_FALSE(open(FXFile::kGenericWrite, FXFile::kCreateAlways, late).IsError());
  ASSERT_TRUE(std::filesystem::remove(path_) && std::filesystem::create_directory(path_));
  std::uint64_t written = 1;
  EXPECT_TRUE(FXFile::LQWriteFile(late, "text", 4, written).IsError() && written == 0) << "a folder by now";
}

TEST_F(Files, AProcessThatIsKilledLeavesTheOldTextAndTheNextOneTidiesUp) {
  ASSERT_FALSE(write("old").IsError());
  // The system kills who writes beyond this size, in the middle of the text.
  const pid_t killed = startChild([this] {
    const FullDisk disk(1000);
    signal(SIGXFSZ, SIG_DFL);
    static_cast<void>(write(std::string(5000, 'n')));  // does not come back
    return 0;
  });
  EXPECT_EQ(endOf(killed), -SIGXFSZ);
  EXPECT_EQ(readFile(path_), "old");
  EXPECT_EQ(fileCount(), 2) << "what this test is about was left behind";

  // A file that is being written is nobody's left-over, and neither is one whose name is just as long.
  auto_handle slow;
  ASSERT_FALSE(open(FXFile::kGenericWrite, FXFile::kCreateAlways, slow).IsError());
  EXPECT_EQ(fileCount(), 2);
  writeFile(dir_ / std::string(1 + 200 + 5 + 6, 'f'), "");  // a dot, of the name, ".new.", six letters
  std::uint64_t written = 0;
  EXPECT_FALSE(write("quick").IsError() || FXFile::LQWriteFile(slow, "slow", 4, written).IsError());
  EXPECT_EQ(readFile(path_), "slow");
  EXPECT_EQ(fileCount(), 2);
}

TEST_F(Files, ManyWhoReplaceAtOnceNeverShowAPart) {
  constexpr int kRounds = 60;
  const auto texts = [](char letter) { return std::string(40'000, letter); };
  ASSERT_FALSE(write(texts('z')).IsError());
  std::vector<pid_t> writers;
  for (const char letter : {'a', 'b', 'c'})
    writers.push_back(startChild([&, letter] {
      for (int i = 0; i < kRounds; ++i)
        if (write(texts(letter)).IsError()) return 1;
      return 0;
    }));
  for (int i = 0; i < 500; ++i) {
    const std::string seen = readFile(path_);
    ASSERT_EQ(seen, texts(seen.empty() ? '?' : seen[0])) << "at reading " << i;
  }
  for (const pid_t writer : writers) EXPECT_EQ(endOf(writer), 0);
  EXPECT_EQ(fileCount(), 1);
}

TEST_F(Files, AFullDiskLeavesAnEmptyNewFileTheOldContentsOrTheOldEnd) {
  const std::string tooMuch(5000, 'n');
  const FullDisk disk(1000);
  ASSERT_FALSE(FXFile::ReplaceContents(path_, "old\n").IsError());
  EXPECT_TRUE(contains(FXFile::ReplaceContents(path_, tooMuch).AsString(), "File too large"));
  EXPECT_TRUE(FXFile::AppendContents(path_, tooMuch).IsError() && readFile(path_) == "old\n");
  EXPECT_TRUE(write(tooMuch).IsError());
  EXPECT_TRUE(std::filesystem::exists(path_) && readFile(path_).empty());
  EXPECT_EQ(fileCount(), 1);
}

// Otherwise whoever cuts a failed write off would cut off what another one has added meanwhile.
TEST_F(Files, WhoAppendsWaitsForWhoIsAppending) {
  const auto_handle first(::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(first.get(), LOCK_EX), 0);
  const pid_t second =
      startChild([this] { return FXFile::AppendContents(path_, "second\n").IsError() ? 1 : 0; });
  siginfo_t end{};
  const auto waits = [&] { return contains(readFile("/proc/locks"), " " + std::to_string(second) + " "); };
  while (!waits() && end.si_pid == 0)
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(second), &end, WEXITED | WNOHANG | WNOWAIT), 0);
  EXPECT_EQ(::write(first.get(), "first\n", 6), 6);
  ASSERT_EQ(flock(first.get(), LOCK_UN), 0);
  EXPECT_EQ(endOf(second), 0);
  EXPECT_EQ(readFile(path_), "first\nsecond\n");
}

TEST_F(Files, WhatIsNoRegularFileIsRefusedAtOnceAndLeftAlone) {
  const std::pair<const char*, std::function<void()>> kinds[] = {
      {"pipe", [this] { ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0); }},
      {"folder", [this] { std::filesystem::create_directory(path_); }},
      {"device", [this] { std::filesystem::create_symlink("/dev/full", path_); }}};
  for (const auto& [kind, make] : kinds) {
    SCOPED_TRACE(kind);
    make();
    std::string text;
    auto_handle handle;
    for (const CWmError& error : {write("text"), write("text", FXFile::kOpenExisting),
                                  FXFile::ReadContents(path_, text), FXFile::ReplaceContents(path_, "text"),
                                  FXFile::AppendContents(path_, "text"), open(0x80000000, 3, handle)})
      EXPECT_EQ(std::string(error.AsString()), path_ + ": not a regular file");
    EXPECT_FALSE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path_)));
    std::filesystem::remove(path_);
  }
  // A link is not replaced, and what it leads to not either.
  writeFile(dir_ / "target", "kept");
  std::filesystem::create_symlink(dir_ / "target", path_);
  EXPECT_TRUE(write("text").IsError() && FXFile::AppendContents(path_, "text").IsError());
  EXPECT_EQ(readFile(path_), "kept");
}

// --- trust -------------------------------------------------------------------------------------------------

TEST_F(Files, AreTrustedWhenNobodyElseCouldWriteThemOrPutOthersInTheirPlace) {
  namespace fs = std::filesystem;
  const std::string above = dir_ / "above";
  const std::string folder = above + "/folder";
  const std::string file = folder + "/file";
  fs::create_directories(folder);
  writeFile(file, "");
  fs::create_symlink(file, dir_ / "link");
  fs::create_symlink("above/../above/folder", dir_ / "folder-link");
  // What gets which mode, and whether the file is trusted then.
  const std::tuple<const char*, std::string, mode_t, bool> cases[] = {
      {"as usual", file, 0644, true},
      {"the group writes the file", file, 0620, false},
      {"all write the file", file, 0602, false},
      {"the group writes its folder", folder, 0770, false},
      {"its folder is sticky", folder, 01777, false},
      {"all write the folder above", above, 0777, false},
      {"the group writes the folder above", above, 0770, false},
      {"the folder above is sticky", above, 01777, true}};
  for (const auto& [what, changed, mode, isTrusted] : cases) {
    SCOPED_TRACE(what);
    const auto before = fs::status(changed).permissions();
    ASSERT_EQ(chmod(changed.c_str(), mode), 0);
    for (const std::string& path :
         {file, above + "/./folder//file", dir_ / "link", dir_ / "folder-link/file"}) {
      const std::string error = FXFile::CheckTrusted(path).AsString();
      EXPECT_EQ(error.empty(), isTrusted) << path << ": " << error;
      EXPECT_TRUE(error.empty() || contains(error, "\"chmod go-w " + changed + "\"")) << error;
    }
    // A file that is not there can be put there by who may write the folder.
    EXPECT_EQ(FXFile::CheckTrusted(folder + "/none").IsError(), !isTrusted && changed != file);
    fs::permissions(changed, before);
  }
  const fs::path here = fs::current_path();
  fs::current_path(above);
  EXPECT_FALSE(FXFile::CheckTrusted("folder/file").IsError());
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  EXPECT_TRUE(FXFile::CheckTrusted("folder/file").IsError());
  EXPECT_TRUE(contains(FXFile::CheckTrusted(folder).AsString(), "chmod go-w")) << "a folder for itself";
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  ASSERT_EQ(chmod(above.c_str(), 01777), 0);
  EXPECT_FALSE(FXFile::CheckTrusted(folder).IsError()) << "what is above it may be sticky";
  for (const std::string& itself : {above, above + "/.", folder + "/.."})
    EXPECT_TRUE(FXFile::CheckTrusted(itself).IsError()) << itself << " itself may not";
  fs::current_path(here);
  fs::create_symlink("loop", dir_ / "loop");
  EXPECT_TRUE(FXFile::CheckTrusted(dir_ / "loop").IsError());
}

TEST_F(Files, OfSomebodyElseAreNotTrusted) {
  writeFile(path_, "");
  if (geteuid() != 0) {
    EXPECT_FALSE(FXFile::CheckTrusted("/etc/passwd").IsError()) << "root's are";
    return;
  }
  std::filesystem::create_symlink("/etc/passwd", dir_ / "link");
  const std::pair<std::string, std::string> cases[] = {
      {path_, path_}, {dir_.path(), path_}, {dir_ / "link", dir_ / "link"}};
  for (const auto& [others, path] : cases) {
    ASSERT_EQ(lchown(others.c_str(), kNobody, kNobody), 0);
    const std::string error = FXFile::CheckTrusted(path).AsString();
    EXPECT_TRUE(contains(error, others + ": not trusted, since it belongs to user 65534")) << error;
    EXPECT_TRUE(contains(error, "\"chown 0 " + others + "\"")) << error;
    ASSERT_EQ(lchown(others.c_str(), 0, 0), 0);
  }
  // Who it belongs to may trust it, and root as well.
  ASSERT_EQ(chown(dir_.path().c_str(), kNobody, kNobody), 0);
  const auto trusts = [&] { return setuid(kNobody) == 0 && !FXFile::CheckTrusted(path_).IsError() ? 0 : 1; };
  EXPECT_EQ(endOf(startChild(trusts)), 0);
}

TEST_F(Files, ALibraryIsLoadedFromAPlaceThatIsTrustedOnly) {
  writeFile(path_, "no library");
  CWmLibrary loader(true);
  const auto expectRefusal = [&](const std::string& library, const std::string& reason) {
    const CWmError error = loader.Load(library, false);
    EXPECT_EQ(error.GetCode(), kLqErrLibrary);
    EXPECT_TRUE(contains(error.AsString(), reason)) << error.AsString();
  };
  expectRefusal(path_, "file too short");  // the loader has looked at it
  ASSERT_EQ(chmod(path_.c_str(), 0606), 0);
  expectRefusal(path_, "\"chmod go-w " + path_ + "\"");
  for (const char* name : {"libLqPlatform.so", ""}) expectRefusal(name, "names no library by its path");
  void* procedure = this;
  EXPECT_TRUE(contains(loader.GetProcedure("malloc", procedure).AsString(), "no library is loaded"));
  EXPECT_EQ(procedure, nullptr);
}

}  // namespace
