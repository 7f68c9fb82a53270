// What a command came to, as texts and an exit code. The commands that a resident host carries out for others
// build it there; it is printed where the person sits.
#pragma once

#include <string>

namespace host {

struct CommandResult {
  int exitCode = 0;  // of commands/exit_codes.h
  std::string out;   // for standard output, whole lines; texts from outside are escaped already
  std::string err;   // for standard error, likewise
};

// One line for standard error. `what` may hold anything; it is escaped here.
[[nodiscard]] std::string complaintLine(const std::string& what);

// A failure of which that line is all there is to say.
[[nodiscard]] CommandResult complaint(int exitCode, const std::string& what);

// Prints both texts; the exit code.
[[nodiscard]] int print(const CommandResult& result);

}  // namespace host
