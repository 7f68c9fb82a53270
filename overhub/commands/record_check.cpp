#include "overhub/commands/record_check.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "common/machine_identity.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/PrintableText.h"
#include "overhub/store/setting.h"
#include "records/expiry.h"
#include "records/record_rules.h"

namespace {

// What a registry takes also with what goes along: a name with that of its end, and a path below the root of
// any instance and with a name behind it, as records that only clear a cache have it.
constexpr std::size_t kMaxInstanceRoot = 256;
constexpr std::size_t kMaxName = lqregistry::kMaxNameBytes - _UNTIL.size();
constexpr std::size_t kMaxPath = lqregistry::kMaxPathBytes - lqregistry::kMaxNameBytes - kMaxInstanceRoot;

std::string quoted(const std::string& text) {
  return '"' + text + '"';
}

CWmError refused(std::string why) {
  return {kLqErrArgument, std::move(why)};
}

bool hasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; });
}

bool isNumber(const std::string& text) {
  std::int64_t number = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  return fault == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool isText(std::string_view text) {
  while (!text.empty()) {
    const bool isSpace = text.front() == '\n' || text.front() == '\t' || text.front() == '\r';
    const std::size_t length = isSpace ? 1 : lqtext::printableLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

CWmError checkRecord(const OBGui::RegistryKeyInfo& record) {
  const std::string& path = record.keyPath;
  const std::string& name = record.valueName;
  const std::string& type = record.valueType;
  if (name.empty() || name.size() > kMaxName || path.size() > kMaxPath)
    return refused("a value's name has 1 to " + std::to_string(kMaxName) + " bytes, a key's path at most " +
                   std::to_string(kMaxPath));
  if (path.starts_with('/')) {
    return refused(quoted(path) +
                   " is no registry path; quote \"~\", or the shell puts your home directory in its place");
  }
  if (name.starts_with('-') || path.starts_with('-'))
    return refused(quoted(name.starts_with('-') ? name : path) + " looks like an option");
  if (hasControl(name) || hasControl(path) || !isText(name) || !isText(path))
    return refused("names and paths are text in UTF-8 without control characters");
  if (!valueOfExpiry(name).empty())
    return refused(quoted(name) + " says when " + quoted(valueOfExpiry(name)) +
                   " ends; set that with --until");
  if (!isText(record.value.get())) return refused("a value is text in UTF-8 without control characters");
  if (type != STRINGTYPE && type != KEYTYPE && type != ENCRYPTEDTYPE) {
    return refused(quoted(type) +
                   " is no type word: STRING, or KEY for a sub-key; --secret makes a protected value");
  }
  return {};
}

CWmError checkHarm(const OBGui::RegistryKeyInfo& record) {
  const std::string place = quoted(record.valueName) + " in " + quoted(record.keyPath);
  if (programs::isWayBack(record)) {
    return refused(place +
                   " is what a client needs to come back to its server: a mistake in it, and nobody reaches "
                   "the machine from here again");
  }
  if (isKey(record) && !isToBeRemoved(record) && !isCreatableKey(record)) {
    return refused(place + ": clients create no sub-key but \"Local\"; others come with the values in them");
  }
  return {};
}

std::string doubtAbout(const OBGui::RegistryKeyInfo& record) {
  const std::string& name = record.valueName;
  const bool isNumberName =
      name.size() > 1 && name[0] == 'n' && std::isupper(static_cast<unsigned char>(name[1])) != 0;
  const bool isPlain = record.valueType.get() == STRINGTYPE && !isToBeRemoved(record);
  if (!isNumberName || !isPlain || isNumber(record.value)) return {};
  return quoted(name) + " is named like a number, and " + quoted(record.value) + " is none";
}
