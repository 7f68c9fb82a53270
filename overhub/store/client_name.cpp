#include "overhub/store/client_name.h"

#include <cstddef>
#include <string_view>

namespace {

constexpr std::size_t kMaxClientName = 64;
constexpr std::string_view kClientNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
constexpr std::string_view kPatternCharacters = "*?[]!^";

}  // namespace

bool isClientName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxClientName && name[0] != '.' &&
         name.find_first_not_of(kClientNameCharacters) == std::string::npos;
}

bool isMemberName(const std::string& text) {
  std::string name = text;
  std::erase_if(name, [](char byte) { return kPatternCharacters.find(byte) != std::string_view::npos; });
  // A dot may stand at the start of what a pattern goes on with.
  const bool goesOn = name.size() < text.size() && name.starts_with('.');
  return !text.empty() && text.size() <= kMaxClientName &&
         (name.empty() || isClientName(goesOn ? "x" + name : name));
}
