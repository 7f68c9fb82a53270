// The values that make a registry this machine's and no other's: who it is to the server, and where things
// lie on it. Copied to another machine they would turn that one into a second copy of this one.
#pragma once

#include <string_view>

#include "lqregistry/OBGui.h"

namespace programs {

// `keyPath` is relative to the instance root, with or without "~" or "~/" in front.
bool isMachineIdentity(std::string_view keyPath, std::string_view valueName);

// Whether a machine that gets this record wrong may never come back to its server: besides the values above
// the switch of the synchronisation and the ids of clients, in any instance; and keys that hold one of them.
bool isWayBack(const OBGui::RegistryKeyInfo& record);

}  // namespace programs
