#include "tests/support/test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "lqregistry/LQPlatformInfo.h"

namespace test_support {

namespace {

int newFile(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

pid_t start(const std::vector<std::string>& command, const std::vector<std::string>& environment, int out,
            int err) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  std::vector<char*> variables;
  for (const auto& entry : environment) variables.push_back(const_cast<char*>(entry.c_str()));
  for (char** entry = environ; *entry != nullptr; ++entry) variables.push_back(*entry);
  variables.push_back(nullptr);

  const pid_t pid = fork();
  if (pid != 0) return pid;
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);  // whoever runs the tests
  execvpe(arguments[0], arguments.data(), variables.data());
  _exit(127);
}

// As a shell gives it.
int exitCodeOf(pid_t pid) {
  const int end = endOf(pid);
  return end < 0 ? 128 - end : end;
}

}  // namespace

int endOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "lqtest.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string uniqueLoopbackAddress() {
  static std::atomic<unsigned> calls{0};
  const auto pid = static_cast<unsigned>(getpid());
  return "127." + std::to_string(32 + (pid >> 15) % 32 + 32 * (calls++ % 6)) + "." +
         std::to_string(pid >> 7 & 255) + "." + std::to_string(1 + (pid & 127));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

unsigned modeOf(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? file.st_mode & 0777U : 0;
}

FullDisk::FullDisk(std::uintmax_t bytes) : handlerBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
  getrlimit(RLIMIT_FSIZE, &before_);
  const rlimit limit{static_cast<rlim_t>(bytes), before_.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
}

FullDisk::~FullDisk() {
  setrlimit(RLIMIT_FSIZE, &before_);
  std::signal(SIGXFSZ, handlerBefore_);
}

std::string programPath(const std::string& name) {
  return std::string(LQ_BIN_DIR) + "/" + name;
}

ProgramResult runProgram(const std::vector<std::string>& command,
                         const std::vector<std::string>& environment) {
  const TempDir texts;
  const int out = newFile(texts / "out");
  const int err = newFile(texts / "err");
  const pid_t pid = start(command, environment, out, err);
  close(out);
  close(err);
  const int exitCode = exitCodeOf(pid);
  return {exitCode, readFile(texts / "out"), readFile(texts / "err")};
}

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& command, const std::string& logFile)
    : logFile_(logFile) {
  const int log = newFile(logFile);
  pid_ = start(command, {}, log, log);
  close(log);
}

BackgroundProgram::~BackgroundProgram() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool BackgroundProgram::waitForOutput(const std::string& text) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (std::chrono::steady_clock::now() < deadline) {
    if (output().find(text) != std::string::npos) return true;
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid != 0)
      return output().find(text) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

std::string BackgroundProgram::output() const {
  return readFile(logFile_);
}

int BackgroundProgram::stop() {
  kill(pid_, SIGTERM);
  const int exitCode = exitCodeOf(pid_);
  pid_ = -1;
  return exitCode;
}

std::optional<std::string> valueOf(const std::string& key, const std::string& name) {
  LQPlatformInfo info;
  std::string value;
  return info.getString(key, name, value) ? std::optional(value) : std::nullopt;
}

void setValue(const std::string& key, const std::string& name, const std::string& value) {
  LQPlatformInfo info;
  EXPECT_NE(info.setString(key, name, value, 0), 0) << info.getRegErrorText();
}

}  // namespace test_support
