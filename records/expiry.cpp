#include "records/expiry.h"

#include <cstdlib>
#include <set>
#include <string>

namespace {

// Whether the record is an expiry time, and one that has passed. It is read as atoi reads it, without digits
// as 0, but 64 bits wide: a time after 2038 has not passed.
bool isExpired(const OBGui::RegistryKeyInfo& key, std::time_t now) {
  const std::string& name = key.valueName;
  return name.size() > _UNTIL.size() && name.ends_with(_UNTIL) &&
         std::strtoll(key.value->c_str(), nullptr, 10) < static_cast<long long>(now);
}

}  // namespace

void markExpired(OBGui::KeyList& keys, std::time_t now) {
  std::set<std::string, std::less<>> expiredNames;
  for (OBGui::RegistryKeyInfo& key : keys) {
    if (!isExpired(key, now)) continue;
    key.deleteFlag = 1;
    expiredNames.insert(key.valueName->substr(0, key.valueName->size() - _UNTIL.size()));
  }
  if (expiredNames.empty()) return;
  // By name alone: a setting on trial may be spread over several keys, and one expiry time is to end all of
  // it. So an expired X_UNTIL anywhere in the list ends X wherever the list sets it.
  for (OBGui::RegistryKeyInfo& key : keys)
    if (expiredNames.contains(key.valueName.get())) key.deleteFlag = 1;
}
