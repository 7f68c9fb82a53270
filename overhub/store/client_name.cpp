#include "overhub/store/client_name.h"

#include <cstddef>
#include <string_view>

namespace {

constexpr std::size_t kMaxClientName = 64;
constexpr std::string_view kClientNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
}  // namespace

bool isClientName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxClientName && name[0] != '.' &&
         name.find_first_not_of(kClientNameCharacters) == std::string::npos;
}
