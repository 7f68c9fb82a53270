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

std::string instanceRoot(std::string_view instance) {
  return std::string(kInstancesKey) + kSeparator + std::string(instance);
}

}  // namespace

bool ResolvePath(std::string_view key, std::string_view instance, std::string& path, std::string& reason) {
  if (key.find('\0') != std::string_view::npos) {
    reason = "the key path holds a NUL byte";
    return false;
  }
  std::string resolved;
  if (!key.starts_with(kAbsoluteRoot)) {
    if (instance.empty()) {
      reason = "the key path is relative and no instance is in focus";
      return false;
    }
    if (instance.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
      reason = "the instance name holds a \"/\" or a NUL byte";
      return false;
    }
    resolved = instanceRoot(instance);
    if (key.starts_with(kInstanceRoot)) key.remove_prefix(1);
  }
  appendComponents(key, resolved);
  if (resolved.size() > kMaxPathBytes) {
    reason = "the key path is longer than " + std::to_string(kMaxPathBytes) + " bytes";
    return false;
  }
  path = std::move(resolved);
  return true;
}

bool CheckValueName(std::string_view name, std::string& reason) {
  if (name.empty()) {
    reason = "the value name is empty";
  } else if (name.size() > kMaxNameBytes) {
    reason = "the value name is longer than " + std::to_string(kMaxNameBytes) + " bytes";
  } else if (name.find('\0') != std::string_view::npos) {
    reason = "the value name holds a NUL byte";
  } else {
    return true;
  }
  return false;
}

bool HoldsInstance(std::string_view path) {
  if (path == kAbsoluteRoot || path == kInstancesKey) return true;
  const std::string below = std::string(kInstancesKey) + '/';
  return path.starts_with(below) && path.find('/', below.size()) == std::string_view::npos;
}

}  // namespace lqregistry
