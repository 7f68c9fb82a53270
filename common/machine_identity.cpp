#include "common/machine_identity.h"

#include <algorithm>
#include <array>

namespace programs {

namespace {

constexpr std::string_view kSessionKeyName = "sSESSIONKEY";
constexpr std::string_view kProtectedPrefix = "V8:";

struct Place {
  std::string_view section;
  std::string_view name;  // empty: every value of the section, and of what lies below it
};
constexpr std::array<Place, 8> kIdentity{{{"Overhub", ""},
                                          {"Session", ""},
                                          {"Hosts", ""},
                                          {"Machine", "sPHYSICALNAME"},
                                          {"Machine", "sHOSTNAME"},
                                          {"Machine", "nPLATFORMTYPE"},
                                          {"Base", "dVELMORHOME"},
                                          {"Base", "dBASEHOME"}}};

bool isPlaceOf(const Place& place, std::string_view path, std::string_view name) {
  if (!place.name.empty()) return path == place.section && name == place.name;
  return path.starts_with(place.section) &&
         (path.size() == place.section.size() || path[place.section.size()] == '/');
}

}  // namespace

bool isMachineIdentity(std::string_view keyPath, std::string_view valueName) {
  if (keyPath.starts_with('~')) keyPath.remove_prefix(1);
  while (keyPath.starts_with('/')) keyPath.remove_prefix(1);
  return std::any_of(kIdentity.begin(), kIdentity.end(),
                     [&](const Place& place) { return isPlaceOf(place, keyPath, valueName); });
}

bool isSecretValue(std::string_view valueName, std::string_view value) {
  return valueName == kSessionKeyName || value.starts_with(kProtectedPrefix);
}

}  // namespace programs
