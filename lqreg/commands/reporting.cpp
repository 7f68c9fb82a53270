#include "lqreg/commands/reporting.h"

#include <cstdio>

#include "common/terminal_text.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr std::size_t kIndent = 2;

}  // namespace

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string lineOf(std::size_t depth, const std::string& text) {
  return std::string(depth * kIndent, ' ') + text + "\n";
}

void warn(const std::string& text) {
  std::fprintf(stderr, "lqreg: %s\n", programs::escapedForTerminal(text).c_str());
}

int complain(int exitCode, const std::string& text) {
  warn(text);
  return exitCode;
}

int refused(const LQPlatformInfo& registry, const std::string& key) {
  int exitCode = kExitUnavailable;
  std::string hint = "check the file and its rights, or name another one with --registry";
  switch (registry.getRegError()) {
    case kRegKeyMissing:
    case kRegValueMissing:
      exitCode = kExitNotFound;
      hint = "\"lqreg tree\" shows what there is, --registry names another file";
      break;
    case kRegBadName:
      exitCode = kExitUsage;
      hint = registry.focus().empty() && !key.starts_with(lqsettings::kAbsoluteRoot)
                 ? "name one with --instance, or use a key that begins with SOFTWARE"
                 : "\"lqreg --help\" tells how keys and values are named";
      break;
    default:
      break;
  }
  return complain(exitCode, registry.getRegErrorText() + "; " + hint);
}

bool hasInstance(const LQPlatformInfo& registry) {
  if (registry.focus().empty()) warn("no instance is in focus; name one with --instance");
  return !registry.focus().empty();
}
