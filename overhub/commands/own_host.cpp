#include "overhub/commands/own_host.h"

#include <unistd.h>

#include <array>

namespace {

constexpr std::size_t kHostNameBuffer = 256;

}  // namespace

std::string ownHostName() {
  std::array<char, kHostNameBuffer> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}
