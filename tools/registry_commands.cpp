// lqreg's commands: read or change the registry through its public interface, and print.
#include "tools/registry_commands.h"

#include <cstdio>
#include <vector>

#include "platform/LqRegistryFile.h"

namespace {

constexpr const char* kEverything = "SOFTWARE";
constexpr std::size_t kIndent = 2;

// Printable on a terminal: control characters, the two-byte ones of UTF-8 included, and the backslash itself
// are escaped. Other bytes stay as they are.
std::string escaped(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string result;
  unsigned char previous = 0;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool wideControl = previous == 0xC2 && byte >= 0x80 && byte < 0xA0;
    previous = byte;
    if (byte >= 0x20 && byte != 0x7F && byte != '\\' && !wideControl) {
      result += character;
    } else if (byte == '\\') {
      result += "\\\\";
    } else if (byte == '\n') {
      result += "\\n";
    } else if (byte == '\t') {
      result += "\\t";
    } else {
      result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return result;
}

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void complainAbout(const std::string& text) {
  std::fprintf(stderr, "lqreg: %s\n", escaped(text).c_str());
}

void printLine(std::size_t depth, const std::string& text) {
  print(std::string(depth * kIndent, ' ') + text + "\n");
}

}  // namespace

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
  for (const auto& [name, data] : values) printLine(0, escaped(name) + " = " + escaped(data));
  for (const auto& name : subKeys) printLine(0, escaped(name) + "/");
  return kExitDone;
}

int RegistryCommands::tree(std::string key) {
  if (key.empty() && registry_.focus().empty()) key = kEverything;

  // Depth first with a list of its own: keys nest deeper than a stack of calls should.
  struct Pending {
    std::string key;
    std::string name;
    std::size_t depth;
  };
  std::vector<Pending> pending{{key, key.empty() ? "~" : key, 0}};
  while (!pending.empty()) {
    const Pending current = std::move(pending.back());
    pending.pop_back();
    std::map<std::string, std::string> values;
    std::list<std::string> subKeys;
    if (!registry_.getRegValues(current.key, values) || !registry_.getSubKeys(current.key, subKeys)) {
      // A key that somebody removed in the meantime belongs to the tree no more.
      if (current.depth != 0 && registry_.getRegError() == kRegKeyMissing) continue;
      return complain(current.key);
    }
    printLine(current.depth, escaped(current.name) + "/");
    for (const auto& [name, data] : values)
      printLine(current.depth + 1, escaped(name) + " = " + escaped(data));
    subKeys.reverse();
    for (const auto& name : subKeys) pending.push_back({current.key + '/' + name, name, current.depth + 1});
  }
  return kExitDone;
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
