#include "common/host_name.h"

#include <unistd.h>

#include <array>

namespace programs {

namespace {

constexpr std::size_t kHostNameBuffer = 256;

}  // namespace

std::string ownHostName() {
  std::array<char, kHostNameBuffer> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

}  // namespace programs
