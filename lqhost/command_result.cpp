#include "lqhost/command_result.h"

#include <cstdio>

#include "common/terminal_text.h"

namespace host {

std::string complaintLine(const std::string& what) {
  return "lqhost: " + programs::escapedForTerminal(what) + "\n";
}

CommandResult complaint(int exitCode, const std::string& what) {
  return {exitCode, "", complaintLine(what)};
}

int print(const CommandResult& result) {
  std::fputs(result.out.c_str(), stdout);
  std::fflush(stdout);  // before the complaints, where both go to one place
  std::fputs(result.err.c_str(), stderr);
  return result.exitCode;
}

}  // namespace host
