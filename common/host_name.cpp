#include "common/host_name.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstddef>
#include <string_view>

namespace programs {

namespace {

constexpr std::string_view kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._:%-";
constexpr std::size_t kMaxName = 255;

}  // namespace

bool isAcceptableHostName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxName &&
         name.find_first_not_of(kNameCharacters) == std::string::npos;
}

std::string ownHostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return ::gethostname(name.data(), name.size()) == 0 ? name.data() : "";
}

}  // namespace programs
