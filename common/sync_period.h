// How often a machine calls its server, as long as nobody has said otherwise.
#pragma once

#include <cstdint>

namespace programs {

// Seconds. The host goes by it, and the server knows by it whom to miss.
inline constexpr std::uint32_t kSynchronisationPeriod = 900;

}  // namespace programs
