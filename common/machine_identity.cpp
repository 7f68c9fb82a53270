#include "common/machine_identity.h"

#include <algorithm>
#include <array>

#include "lqregistry/LqSettings.h"
#include "records/record_rules.h"

namespace programs {

namespace {

// Without a name: every value of the key, and of what lies below it.
constexpr std::array kIdentity{lqsettings::Setting{lqsettings::kServerKey, ""},
                               lqsettings::Setting{lqsettings::kSessionsKey, ""},
                               lqsettings::Setting{lqsettings::kHostsKey, ""},
                               lqsettings::kPhysicalMachine,
                               lqsettings::kHostName,
                               lqsettings::kPlatformType,
                               lqsettings::kVelmorHome,
                               lqsettings::kBaseHome};

bool isAtOrBelow(std::string_view path, std::string_view key) {
  return path.starts_with(key) && (path.size() == key.size() || path[key.size()] == '/');
}

bool isPlaceOf(const lqsettings::Setting& place, std::string_view path, std::string_view name) {
  return *place.name != '\0' ? path == place.key && name == place.name : isAtOrBelow(path, place.key);
}

// The components of a path as the registry takes them: below the instance root, or from the file's root on.
std::string canonical(std::string_view keyPath) {
  std::string path;
  if (keyPath.starts_with(lqsettings::kInstanceRoot)) keyPath.remove_prefix(1);
  for (const char next : keyPath)
    if (next != '/' || (!path.empty() && path.back() != '/')) path += next;
  if (path.ends_with('/')) path.pop_back();
  return path;
}

// The path below the root of its instance, whichever that is.
std::string belowInstance(std::string path) {
  if (!isAtOrBelow(path, lqsettings::kInstancesKey)) return path;
  const std::size_t instance = std::string_view(lqsettings::kInstancesKey).size() + 1;
  const std::size_t end = path.find('/', std::min(instance, path.size()));
  return end == std::string::npos ? std::string() : path.substr(end + 1);
}

}  // namespace

bool isMachineIdentity(std::string_view keyPath, std::string_view valueName) {
  const std::string path = canonical(keyPath);
  return std::any_of(kIdentity.begin(), kIdentity.end(),
                     [&](const lqsettings::Setting& place) { return isPlaceOf(place, path, valueName); });
}

bool isWayBack(const OBGui::RegistryKeyInfo& record) {
  const std::string path = canonical(isKey(record) ? keyOf(record) : record.keyPath.get());
  if ((path + '/').starts_with(lqsettings::kClientsKey)) return true;
  const std::string key = belowInstance(path);
  if (!isKey(record))
    return isMachineIdentity(key, record.valueName.get()) ||
           isPlaceOf(lqsettings::kSyncEnabled, key, record.valueName.get());
  const auto isLost = [&key](const lqsettings::Setting& place) {
    return isAtOrBelow(place.key, key) || (*place.name == '\0' && isAtOrBelow(key, place.key));
  };
  const bool isAbove = isAtOrBelow(lqsettings::kInstancesKey, path) || key.empty();  // all lies below it
  return isToBeRemoved(record) && (isAbove || std::any_of(kIdentity.begin(), kIdentity.end(), isLost) ||
                                   isLost(lqsettings::kSyncEnabled));
}

}  // namespace programs
