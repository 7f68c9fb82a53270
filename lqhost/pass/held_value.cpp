#include "lqhost/pass/held_value.h"

#include <list>

#include "lqregistry/LQPlatformInfo.h"
#include "records/key_records.h"

namespace host {

HeldValue heldValue(const OBGui::RegistryKeyInfo& key) {
  LQPlatformInfo info;
  const std::string path = normalisedKeyPath(key.keyPath);
  if (key.valueType.get() == KEYTYPE) {
    std::list<std::string> below;
    return info.getSubKeys(subKeyPath(path, key.valueName), below) ? HeldValue("") : std::nullopt;
  }
  std::string value;
  return info.getString(path, key.valueName, value) ? HeldValue(value) : std::nullopt;
}

}  // namespace host
