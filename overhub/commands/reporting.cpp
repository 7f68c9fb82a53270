#include "overhub/commands/reporting.h"

#include <cstdio>

#include "common/terminal_text.h"

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int exitCodeOncePrinted(int exitCode) {
  static_cast<void>(std::fflush(stdout));  // the error indicator tells of any write, this one included
  return std::ferror(stdout) == 0 ? exitCode
                                  : complain(kExitDataUnusable, "standard output cannot be written");
}

int exitCodeOf(const CWmError& error) {
  switch (error.GetCode()) {
    case kLqErrNone:
      return kExitOk;
    case kLqErrRequestRefused:
      return kExitRefused;
    case kLqErrArgument:
      return kExitUsage;
    default:
      return kExitDataUnusable;
  }
}

int storeFailed(const CWmError& error) {
  return complain(exitCodeOf(error), error.AsString());
}

void warn(const std::string& text) {
  std::fprintf(stderr, "overhub: %s\n", programs::escapedForTerminal(text).c_str());
}

int complain(int exitCode, const std::string& text) {
  warn(text);
  return exitCode;
}
