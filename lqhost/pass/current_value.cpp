#include "lqhost/pass/current_value.h"

#include <list>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "records/record_rules.h"

namespace host {

namespace {

CurrentValue currentValue(LQPlatformInfo& info, const OBGui::RegistryKeyInfo& key) {
  const std::string path = normalisedKeyPath(key.keyPath);
  if (isKey(key)) {
    std::list<std::string> below;
    return info.getSubKeys(subKeyPath(path, key.valueName), below) ? CurrentValue("") : std::nullopt;
  }
  std::string value;
  return info.getString(path, key.valueName, value) ? CurrentValue(value) : std::nullopt;
}

}  // namespace

std::vector<CurrentValue> currentValues(const OBGui::KeyList& keys) {
  const lqregistry::ReadSnapshot still;
  LQPlatformInfo info;
  std::vector<CurrentValue> values;
  values.reserve(keys.size());
  for (const OBGui::RegistryKeyInfo& key : keys) values.push_back(currentValue(info, key));
  return values;
}

}  // namespace host
