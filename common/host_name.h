// Host names: which ones are acceptable, and what this machine calls itself.
#pragma once

#include <string>

namespace programs {

// Whether a host name, an address or a server's name can stand in a join file and in a target: letters,
// digits and . _ : % -
bool isAcceptableHostName(const std::string& name);

// What this machine calls itself; empty when the system does not tell.
std::string ownHostName();

}  // namespace programs
