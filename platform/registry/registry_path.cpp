// The rules for key paths: what "~" means, which paths are absolute, what is too long.
#include "platform/registry/registry_path.h"

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"

namespace lqregistry {

using lqsettings::kAbsoluteRoot;
using lqsettings::kInstanceRoot;
using lqsettings::kInstancesKey;

namespace {

constexpr char kSeparator = '/';

void appendComponents(std::string_view components, std::string& path) {
  while (!components.empty()) {
    const auto end = components.find(kSeparator);
    const auto component = components.substr(0, end);
    if (!component.empty()) {
      if (!path.empty()) path += kSeparator;
      path += component;
    }
    components.remove_prefix(end == std::string_view::npos ? components.size() : end + 1);
  }
}

Outcome badName(std::string reason) {
  return {kRegBadName, std::move(reason)};
}

std::string instanceRoot(std::string_view instance) {
  return std::string(kInstancesKey) + kSeparator + std::string(instance);
}

}  // namespace

Outcome ResolvePath(std::string_view key, std::string_view instance, std::string& path) {
  if (key.find('\0') != std::string_view::npos) return badName("the key path holds a NUL byte");
  std::string resolved;
  if (!key.starts_with(kAbsoluteRoot)) {
    if (instance.empty()) return badName("the key path is relative and no instance is in focus");
    if (instance.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
      return badName("the instance name holds a \"/\" or a NUL byte");
    resolved = instanceRoot(instance);
    if (key.starts_with(kInstanceRoot)) key.remove_prefix(1);
  }
  appendComponents(key, resolved);
  if (resolved.size() > kMaxPathBytes)
    return badName("the key path is longer than " + std::to_string(kMaxPathBytes) + " bytes");
  path = std::move(resolved);
  return {};
}

Outcome CheckValueName(std::string_view name) {
  if (name.empty()) return badName("the value name is empty");
  if (name.size() > kMaxNameBytes)
    return badName("the value name is longer than " + std::to_string(kMaxNameBytes) + " bytes");
  if (name.find('\0') != std::string_view::npos) return badName("the value name holds a NUL byte");
  return {};
}

bool HoldsInstance(std::string_view path) {
  if (path == kAbsoluteRoot || path == kInstancesKey) return true;
  const std::string below = std::string(kInstancesKey) + '/';
  return path.starts_with(below) && path.find('/', below.size()) == std::string_view::npos;
}

}  // namespace lqregistry
