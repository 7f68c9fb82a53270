#include "common/machine_identity.h"

#include <algorithm>
#include <array>

#include "lqregistry/LqSettings.h"

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

bool isPlaceOf(const lqsettings::Setting& place, std::string_view path, std::string_view name) {
  const std::string_view key = place.key;
  if (*place.name != '\0') return path == key && name == place.name;
  return path.starts_with(key) && (path.size() == key.size() || path[key.size()] == '/');
}

}  // namespace

bool isMachineIdentity(std::string_view keyPath, std::string_view valueName) {
  if (keyPath.starts_with(lqsettings::kInstanceRoot)) keyPath.remove_prefix(1);
  while (keyPath.starts_with('/')) keyPath.remove_prefix(1);
  return std::any_of(kIdentity.begin(), kIdentity.end(),
                     [&](const lqsettings::Setting& place) { return isPlaceOf(place, keyPath, valueName); });
}

}  // namespace programs
