// What this machine calls itself.
#pragma once

#include <string>

namespace programs {

// Empty when the system does not tell.
std::string ownHostName();

}  // namespace programs
