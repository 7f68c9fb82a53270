// What every test needs: a folder of its own, a loopback address of its own, programs run as users do.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

// A fresh folder, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::filesystem::path path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// A loopback address that no other test process uses at this moment; another one at each call.
std::string uniqueLoopbackAddress();

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& contents);

bool contains(const std::string& text, const std::string& part);
// The permissions of a file; 0 when there is none.
unsigned modeOf(const std::string& path);

// What the registry in use holds, as seen from the instance in focus.
std::optional<std::string> valueOf(const std::string& key, const std::string& name);
void setValue(const std::string& key, const std::string& name, const std::string& value);

// While it lives, no file of this process grows beyond `bytes`: what a full disk does, for one process.
class FullDisk {
 public:
  explicit FullDisk(std::uintmax_t bytes);
  ~FullDisk();
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before_{};
  void (*handlerBefore_)(int);
};

// Waits for the end of a child of this process; its exit code, or minus the signal that ended it.
int endOf(pid_t child);

struct ProgramResult {
  int exitCode = -1;  // 128 + signal number when a signal ended it
  std::string out;    // standard output and standard error, each in order
  std::string err;
};

// The built program of that name ("lqreg", "overhub", "lqhost").
std::string programPath(const std::string& name);

// Runs a program to its end. `environment` entries ("NAME=value") are added to this process's own.
ProgramResult runProgram(const std::vector<std::string>& command,
                         const std::vector<std::string>& environment = {});

// A sanitizer has a heap of its own and needs descriptors to look at memory. Each compiler says so in its own
// words.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LQ_IS_SANITIZED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(LQ_IS_SANITIZED)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

// A program running in the background; killed at the end if it still runs. Its standard output and standard
// error go to `logFile`.
class BackgroundProgram {
 public:
  BackgroundProgram(const std::vector<std::string>& command, const std::string& logFile);
  ~BackgroundProgram();
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;

  // Waits until the log file holds `text`; false when the program ended, or a minute passed, without it.
  bool waitForOutput(const std::string& text) const;
  std::string output() const;
  pid_t process() const { return pid_; }
  // Sends SIGTERM and waits for the end; the exit code as in ProgramResult.
  int stop();

 private:
  pid_t pid_ = -1;
  std::string logFile_;
};

}  // namespace test_support

using namespace test_support;  // what nearly every line of a test speaks of
