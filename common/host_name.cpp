#include "common/host_name.h"

#include <unistd.h>

#include <array>
#include <climits>

namespace programs {

std::string ownHostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return ::gethostname(name.data(), name.size()) == 0 ? name.data() : "";
}

}  // namespace programs
