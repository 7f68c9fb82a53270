#include "tests/support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test_support {

namespace {

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

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
  execvpe(arguments[0], arguments.data(), variables.data());
  _exit(127);
}

}  // namespace

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

std::string programPath(const std::string& name) { return std::string(LQ_BIN_DIR) + "/" + name; }

ProgramResult runProgram(const std::vector<std::string>& command, const std::vector<std::string>& environment) {
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("no pipe");
  const pid_t pid = start(command, environment, out[1], err[1]);
  close(out[1]);
  close(err[1]);

  ProgramResult result;
  std::array<pollfd, 2> sources{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  std::array<std::string*, 2> texts{&result.out, &result.err};
  for (int open = 2; open > 0;) {
    poll(sources.data(), sources.size(), -1);
    for (std::size_t i = 0; i < sources.size(); ++i) {
      if (sources[i].fd < 0 || sources[i].revents == 0) continue;
      std::array<char, 4096> buffer{};
      const ssize_t got = read(sources[i].fd, buffer.data(), buffer.size());
      if (got > 0) {
        texts[i]->append(buffer.data(), static_cast<std::size_t>(got));
      } else {
        close(sources[i].fd);
        sources[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = exitCodeOf(status);
  return result;
}

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& command, const std::string& logFile)
    : logFile_(logFile) {
  const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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

std::string BackgroundProgram::output() const { return readFile(logFile_); }

int BackgroundProgram::stop() {
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return exitCodeOf(status);
}

}  // namespace test_support
