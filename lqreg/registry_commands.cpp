// lqreg's commands: read or change the registry through its public interface, and print.
#include "lqreg/registry_commands.h"

#include <cstdio>

#include "common/text_table.h"
#include "lqreg/key_walk.h"
#include "lqregistry/LqRegistryFile.h"

using programs::escapedForTerminal;

namespace {

constexpr const char* kEverything = "SOFTWARE";
constexpr std::size_t kIndent = 2;

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void printLine(std::size_t depth, const std::string& text) {
  print(std::string(depth * kIndent, ' ') + text + "\n");
}

}  // namespace

void complainAbout(const std::string& text) {
  std::fprintf(stderr, "lqreg: %s\n", escapedForTerminal(text).c_str());
}

RegistryCommands::RegistryCommands(const std::string& instance) : registry_(instance.c_str()) {}

int RegistryCommands::get(const std::string& key, const std::string& name) {
  std::string data;
  if (!registry_.getString(key, name, data)) return complain(key);
  print(data + "\n");
  return kExitDone;
}

int RegistryCommands::set(const std::string& key, const std::string& name, const std::string& value) {
  return registry_.setString(key, name, value, 0) != 0 ? kExitDone : complain(key);
}

int RegistryCommands::removeValue(const std::string& key, const std::string& name) {
  return registry_.delRegField(key, name) ? kExitDone : complain(key);
}

int RegistryCommands::removeKey(const std::string& key, bool recursive) {
  std::map<std::string, std::string> values;
  std::list<std::string> subKeys;
  if (!recursive && (!registry_.getRegValues(key, values) || !registry_.getSubKeys(key, subKeys)))
    return complain(key);
  if (!values.empty() || !subKeys.empty()) {
    complainAbout("the key holds " + std::to_string(values.size()) + " value(s) and " +
                  std::to_string(subKeys.size()) + " sub-key(s) (file \"" + lqregistry::File() +
                  "\", key \"" + key + "\"); --recursive removes it with all of them");
    return kExitUsage;
  }
  return registry_.delRegKey(key) ? kExitDone : complain(key);
}

int RegistryCommands::list(const std::string& key) {
  std::map<std::string, std::string> values;
  std::list<std::string> subKeys;
  if (!registry_.getRegValues(key, values) || !registry_.getSubKeys(key, subKeys)) return complain(key);
  for (const auto& [name, data] : values)
    printLine(0, escapedForTerminal(name) + " = " + escapedForTerminal(data));
  for (const auto& name : subKeys) printLine(0, escapedForTerminal(name) + "/");
  return kExitDone;
}

int RegistryCommands::tree(std::string key) {
  if (key.empty() && registry_.focus().empty()) key = kEverything;

  const std::string rootName = key.empty() ? "~" : key;
  const auto printKey = [&rootName](const WalkedKey& walked) {
    printLine(walked.depth, escapedForTerminal(walked.depth == 0 ? rootName : walked.name) + "/");
    for (const auto& [name, data] : walked.values)
      printLine(walked.depth + 1, escapedForTerminal(name) + " = " + escapedForTerminal(data));
  };
  return walkKeys(registry_, key, printKey) ? kExitDone : complain(key);
}

int RegistryCommands::complain(const std::string& key) const {
  int exitCode = kExitUnavailable;
  std::string wayOut = "check the file and its rights, or name another one with --registry";
  switch (registry_.getRegError()) {
    case kRegKeyMissing:
    case kRegValueMissing:
      exitCode = kExitNotFound;
      wayOut = "\"lqreg tree\" shows what there is, --registry names another file";
      break;
    case kRegBadName:
      exitCode = kExitUsage;
      wayOut = registry_.focus().empty() && !key.starts_with(kEverything)
                   ? "name one with --instance, or use a key that begins with SOFTWARE"
                   : "\"lqreg --help\" tells how keys and values are named";
      break;
    default:
      break;
  }
  complainAbout(registry_.getRegErrorText() + "; " + wayOut);
  return exitCode;
}

bool RegistryCommands::hasInstance() const {
  if (registry_.focus().empty()) complainAbout("no instance is in focus; name one with --instance");
  return !registry_.focus().empty();
}
