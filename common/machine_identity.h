// The values that make a registry this machine's and no other's: who it is to the server, and where things
// lie on it. Copied to another machine they would turn that one into a second copy of this one.
#pragma once

#include <string_view>

namespace programs {

// `keyPath` is relative to the instance root, with or without "~" or "~/" in front.
bool isMachineIdentity(std::string_view keyPath, std::string_view valueName);

}  // namespace programs
