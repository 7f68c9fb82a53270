#include "overhub/store/setting_place.h"

#include <algorithm>

#include "lqregistry/LqSettings.h"

namespace {

constexpr char kSeparator = '/';

}  // namespace

std::string settingPlace(std::string_view path) {
  using lqsettings::kInstanceRoot;
  std::string place;
  if (!path.starts_with(lqsettings::kAbsoluteRoot)) {
    place = kInstanceRoot;
    if (path.starts_with(kInstanceRoot)) path.remove_prefix(std::string_view(kInstanceRoot).size());
  }
  while (!path.empty()) {
    const std::string_view component = path.substr(0, path.find(kSeparator));
    if (!component.empty() && !place.empty()) place += kSeparator;
    place += component;
    path.remove_prefix(std::min(component.size() + 1, path.size()));
  }
  return place;
}
