// What an upload sends (upload.cpp): the whole local registry as a flat list of key records. First the paths
// of all keys, then their records.
#include <algorithm>
#include <array>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "records/record_conversion.h"
#include "records/record_rules.h"

namespace {

// In front of every path, listings included: a key of the instance may be called "SOFTWARE...", too.
constexpr const char* kBelowRoot = lqsettings::kInstanceRoot;
constexpr std::int64_t kKept = 0;
constexpr std::int64_t kEnabled = 1;

OBGui::RegistryKeyInfo recordOf(const std::string& keyPath, const std::string& valueName,
                                const std::string& type, const std::string& value) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = keyPath;
  record.valueName = valueName;
  record.valueType = type;
  record.value = value;
  record.deleteFlag = kKept;
  record.enabledFlag = kEnabled;
  return record;
}

OBGui::RegistryKeyInfo keyRecord(const std::string& keyPath) {
  const std::size_t separator = keyPath.rfind('/');
  if (separator == std::string::npos) return recordOf("", keyPath, KEYTYPE, "");
  return recordOf(keyPath.substr(0, separator), keyPath.substr(separator + 1), KEYTYPE, "");
}

// Appends all that is below `listed`, with paths that begin with `shown`; false when it cannot be listed.
bool appendSubKeys(LQPlatformInfo& info, const std::string& listed, const std::string& shown,
                   std::list<std::string>& keys) {
  std::list<std::string> children;
  if (!info.getSubKeys(listed, children)) return false;
  for (const std::string& child : children) {
    const std::string path = subKeyPath(shown, child);
    keys.push_back(path);
    appendSubKeys(info, subKeyPath(listed, child), path, keys);
  }
  return true;
}

}  // namespace

unsigned LqRegistryManagerClnt::enumerateClientKeysInfo(const char* path, OBGui::KeyList& records) {
  const lqregistry::ReadSnapshot still;  // one registry is listed, not a mixture of what it was and became
  std::list<std::string> topLevel;
  if (path == nullptr || !platformInfo.getSubKeys(kBelowRoot, topLevel)) return kResultFailed;
  std::list<std::string> keys;
  for (const std::string& key : topLevel) {
    keys.push_back(key);
    // Not through getAllClientKeys: this name is a key's own, also where it begins with the root's sign.
    appendSubKeys(platformInfo, kBelowRoot + key, key, keys);
  }
  for (const std::string& key : keys) {
    std::map<std::string, std::string> values;
    if (platformInfo.getRegValues(kBelowRoot + key, values)) fillKeyFieldInformation(key, values, records);
  }
  return kResultOk;
}

unsigned LqRegistryManagerClnt::getAllClientKeys(const char* parent, std::list<std::string>& keys) {
  if (parent == nullptr) return kResultFailed;
  const std::string shown = parent;
  const bool isBelowRoot = shown.starts_with(kBelowRoot);
  return appendSubKeys(platformInfo, isBelowRoot ? shown : kBelowRoot + shown, shown, keys) ? kResultOk
                                                                                            : kResultFailed;
}

unsigned LqRegistryManagerClnt::fillKeyFieldInformation(const std::string& keyPath,
                                                        const std::map<std::string, std::string>& values,
                                                        OBGui::KeyList& records) {
  if (keyPath.empty()) return kResultFailed;
  records.push_back(keyRecord(keyPath));
  const std::string path = kBelowRoot + keyPath;
  // All zero before each value, so that one stored without a NUL does not end in the rest of another.
  std::array<char, kValueBuffer> value{};
  for (const auto& [name, data] : values) {
    unsigned type = 0;
    int size = kValueBuffer;
    if (platformInfo.getRegValue(path, name, type, value.data(), size))
      records.push_back(recordOf(keyPath, name, getKeyString(type), value.data()));
    std::fill_n(value.begin(), size, '\0');  // what was read, or all of it after a failure
  }
  return kResultOk;
}
