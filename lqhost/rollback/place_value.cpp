#include "lqhost/rollback/place_value.h"

#include <array>
#include <cstdlib>
#include <list>
#include <map>

#include "lqhost/instance.h"
#include "lqregistry/LqSettings.h"
#include "records/record_rules.h"

namespace host {

namespace {

bool isEmptyKey(LQPlatformInfo& registry, const std::string& path) {
  std::list<std::string> below;
  std::map<std::string, std::string> values;
  return registry.getSubKeys(path, below) && below.empty() && registry.getRegValues(path, values) &&
         values.empty();
}

bool removePlace(LQPlatformInfo& registry, const MemoryPlace& place) {
  if (!place.isKeyItself()) return registry.delRegField(place.path, place.name) || isAbsent(registry);
  if (!isEmptyKey(registry, place.path)) return true;
  // One that the registry does not let go, such as that of all clients, stays as an empty key.
  return registry.delRegKey(place.path) || isAbsent(registry) || registry.getRegError() == kRegBadName;
}

}  // namespace

std::string absolutePath(const std::string& keyPath) {
  std::string_view rest = keyPath;
  std::string path;
  if (!rest.starts_with(lqsettings::kAbsoluteRoot)) {
    path = std::string(lqsettings::kInstancesKey) + "/" + instanceName();
    if (rest.starts_with(lqsettings::kInstanceRoot)) rest.remove_prefix(1);
  }
  while (!rest.empty()) {
    const std::size_t end = rest.find('/');
    const std::string_view component = rest.substr(0, end);
    if (!component.empty()) {
      if (!path.empty()) path += '/';
      path += component;
    }
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return path;
}

std::string packed(unsigned type, std::string_view data) {
  std::string text = std::to_string(type) + ":";
  text.reserve(text.size() + data.size());
  for (const char next : data) {
    if (next == '\0') {
      text += "%00";
    } else if (next == '%') {
      text += "%25";
    } else {
      text += next;
    }
  }
  return text;
}

std::string dataOf(const std::string& packedValue) {
  constexpr std::size_t kEscape = 3;
  std::string data;
  for (std::size_t at = packedValue.find(':') + 1; at < packedValue.size(); ++at) {
    if (packedValue[at] != '%') {
      data += packedValue[at];
      continue;
    }
    data += packedValue.compare(at, kEscape, "%00") == 0 ? '\0' : '%';
    at += kEscape - 1;
  }
  return data;
}

PlaceValue readPlace(LQPlatformInfo& registry, const std::string& path, const std::string& name) {
  if (name.empty()) {
    std::list<std::string> below;
    return registry.getSubKeys(path, below) ? PlaceValue("") : std::nullopt;
  }
  unsigned type = 0;
  std::array<char, kValueBuffer>
      buffer;  // not cleared: what is read into it is looked at only as far as it goes
  int size = kValueBuffer;
  if (registry.getRegValue(path, name, type, buffer.data(), size))
    return packed(type, {buffer.data(), static_cast<std::size_t>(size) - 1});
  if (registry.getRegError() != kRegBufferTooSmall) return std::nullopt;
  std::string data;
  if (!registry.getString(path, name, data)) return std::nullopt;
  std::string whole(data.size() + 1, '\0');
  size = static_cast<int>(whole.size());
  if (!registry.getRegValue(path, name, type, whole.data(), size)) return std::nullopt;
  return packed(type, data);
}

bool isAbsent(const LQPlatformInfo& registry) {
  return registry.getRegError() == kRegKeyMissing || registry.getRegError() == kRegValueMissing;
}

bool writePlace(LQPlatformInfo& registry, const MemoryPlace& place, const PlaceValue& value) {
  if (!value) return removePlace(registry, place);
  if (!registry.createRegKey(place.path)) return false;
  if (place.isKeyItself()) return true;
  const auto type = static_cast<unsigned>(std::strtoul(value->c_str(), nullptr, 10));
  const std::string data = dataOf(*value);
  return registry.setRegValue(place.path, place.name, type, data.data(), static_cast<int>(data.size()));
}

}  // namespace host
