#include "overhub/store/scope.h"

#include <cstdlib>
#include <string_view>

namespace {

constexpr std::string_view kMachine = "c:";
constexpr std::string_view kGroup = "g:";

}  // namespace

std::string machineScope(std::int64_t clientId) {
  return std::string(kMachine) + std::to_string(clientId);
}

std::string groupScope(const std::string& group) {
  return std::string(kGroup) + group;
}

std::string groupOfScope(const std::string& scope) {
  return scope.starts_with(kGroup) ? scope.substr(kGroup.size()) : std::string();
}

std::int64_t clientOfScope(const std::string& scope) {
  return scope.starts_with(kMachine) ? std::strtoll(scope.c_str() + kMachine.size(), nullptr, 10) : 0;
}
