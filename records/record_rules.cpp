#include "records/record_rules.h"

#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kPathSeparator = "/";

}  // namespace

std::string normalisedKeyPath(const std::string& keyPath) {
  using lqsettings::kInstanceRoot;
  const bool isRooted = keyPath.starts_with(lqsettings::kAbsoluteRoot) || keyPath.starts_with(kInstanceRoot);
  return isRooted ? keyPath : kInstanceRoot + keyPath;
}

std::string subKeyPath(const std::string& path, const std::string& name) {
  return path + kPathSeparator + name;
}
