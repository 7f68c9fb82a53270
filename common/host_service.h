// Where a client's host service (lqhost run) listens for the server. Both sides use this.
#pragma once

#include <cstdint>

namespace programs {

// Apart from the server's own service ports, so that a server's machine may be a client too.
inline constexpr std::uint16_t kHostServicePort = 8404;

}  // namespace programs
