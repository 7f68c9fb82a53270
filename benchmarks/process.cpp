#include "benchmarks/process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "benchmarks/machine.h"

namespace bench {

namespace {

std::vector<char*> pointersTo(const std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  return pointers;
}

double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// The first number of schedstat is the time on a processor in nanoseconds, of one thread.
double cpuOfThreads(const std::filesystem::path& process) {
  double nanoseconds = 0;
  for (const auto& thread : std::filesystem::directory_iterator(process / "task")) {
    double own = 0;
    std::ifstream(thread.path() / "schedstat") >> own;
    nanoseconds += own;
  }
  return nanoseconds / 1e6;
}

}  // namespace

Child::Child(const std::vector<std::string>& words) {
  int in[2];
  int out[2];
  demand(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0, "no pipes");
  std::vector<char*> arguments = pointersTo(words);
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  const int result = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  in_ = fdopen(in[1], "w");
  out_ = fdopen(out[0], "r");
  demand(result == 0, "cannot start " + words[0]);
}

Child::~Child() {
  std::fclose(in_);
  std::fclose(out_);
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

void Child::tell(const std::string& line) {
  std::fprintf(in_, "%s\n", line.c_str());
  std::fflush(in_);
}

std::string Child::hear() {
  std::string line;
  int next = 0;
  while ((next = std::fgetc(out_)) != '\n') {
    demand(next != EOF, "a program in the background has ended");
    line += static_cast<char>(next);
  }
  return line;
}

Figures runProcess(const Command& command) {
  std::vector<char*> arguments = pointersTo(command.words);
  arguments.push_back(nullptr);
  std::vector<char*> variables = pointersTo(command.environment);
  for (char** entry = environ; *entry != nullptr; ++entry) variables.push_back(*entry);
  variables.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, command.input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, command.output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  rusage used{};
  int status = 0;
  Figures figures = timed([&] {
    pid_t pid = 0;
    demand(posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), variables.data()) == 0,
           "cannot start " + command.words[0]);
    wait4(pid, &status, 0, &used);
  });
  posix_spawn_file_actions_destroy(&actions);
  demand(status == 0, command.words[0] + " failed");
  figures["cpu_ms"] = milliseconds(used.ru_utime) + milliseconds(used.ru_stime);
  return figures;
}

double cpuOf(const std::string& name, const std::string& folder) {
  double sum = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string own;
    std::ifstream(entry.path() / "comm") >> own;
    if (own == name && readFile(entry.path() / "environ").find(folder) != std::string::npos)
      sum += cpuOfThreads(entry.path());
  }
  return sum;
}

}  // namespace bench
