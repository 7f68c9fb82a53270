// Programs that are timed from outside.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "benchmarks/rounds.h"

namespace bench {

struct Command {
  std::vector<std::string> words;
  std::vector<std::string> environment{};  // "NAME=value", on top of this process's
  std::string input = "/dev/null";
  std::string output = "/dev/null";
};

// A program in the background, talked to through its standard input and output. Told to end at the end.
class Child {
 public:
  explicit Child(const std::vector<std::string>& words);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // A line to it, and one from it.
  void tell(const std::string& line);
  std::string hear();

 private:
  pid_t pid_ = -1;
  std::FILE* in_ = nullptr;
  std::FILE* out_ = nullptr;
};

// Runs it to its end: "ms" from its start to its end, "cpu_ms" of it and what it waited for. Throws when it
// ends with another exit code than 0.
Figures runProcess(const Command& command);

// What the processes of this name that stand in this folder have used of the processor, in milliseconds.
double cpuOf(const std::string& name, const std::string& folder);

}  // namespace bench
