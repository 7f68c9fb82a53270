#include "lqhost/pass/current_value.h"

#include <list>

#include "lqregistry/LQPlatformInfo.h"
#include "records/record_rules.h"

namespace host {

CurrentValue currentValue(const OBGui::RegistryKeyInfo& key) {
  LQPlatformInfo info;
  const std::string path = normalisedKeyPath(key.keyPath);
  if (isKey(key)) {
    std::list<std::string> below;
    return info.getSubKeys(subKeyPath(path, key.valueName), below) ? CurrentValue("") : std::nullopt;
  }
  std::string value;
  return info.getString(path, key.valueName, value) ? CurrentValue(value) : std::nullopt;
}

}  // namespace host
