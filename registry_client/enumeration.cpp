// The whole local registry as a flat list of key records: first the paths of all keys, then the records of
// each.
#include <array>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "records/key_records.h"
#include "records/record_conversion.h"

namespace {

// In front of every path, listings included: a key of the instance may be called "SOFTWARE...", too.
constexpr const char* kBelowRoot = "~";
// Longer values fail to read and are skipped.
constexpr int kValueBuffer = 10240;
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

}  // namespace

unsigned LqRegistryManagerClnt::enumerateClientKeysInfo(const char* path, OBGui::KeyList& records) {
  std::list<std::string> topLevel;
  if (path == nullptr || !platformInfo.getSubKeys(kBelowRoot, topLevel)) return kResultFailed;
  std::list<std::string> keys;
  for (const std::string& key : topLevel) {
    keys.push_back(key);
    getAllClientKeys(key.c_str(), keys);
  }
  for (const std::string& key : keys) {
    std::map<std::string, std::string> values;
    if (platformInfo.getRegValues(kBelowRoot + key, values)) fillKeyFieldInformation(key, values, records);
  }
  return kResultOk;
}

unsigned LqRegistryManagerClnt::getAllClientKeys(const char* parent, std::list<std::string>& keys) {
  std::list<std::string> children;
  if (!platformInfo.getSubKeys(std::string(kBelowRoot) + parent, children)) return kResultFailed;
  for (const std::string& child : children) {
    keys.push_back(subKeyPath(parent, child));
    getAllClientKeys(std::string(keys.back()).c_str(), keys);
  }
  return kResultOk;
}

unsigned LqRegistryManagerClnt::fillKeyFieldInformation(const std::string& keyPath,
                                                        const std::map<std::string, std::string>& values,
                                                        OBGui::KeyList& records) {
  if (keyPath.empty()) return kResultFailed;
  records.push_back(keyRecord(keyPath));
  const std::string path = kBelowRoot + keyPath;
  std::array<char, kValueBuffer> value;  // a read that succeeds leaves a NUL after the data
  for (const auto& [name, data] : values) {
    unsigned type = 0;
    int size = kValueBuffer;
    if (platformInfo.getRegValue(path, name, type, value.data(), size))
      records.push_back(recordOf(keyPath, name, getKeyString(type), value.data()));
  }
  return kResultOk;
}
