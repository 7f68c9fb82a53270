// One place of the registry as the memory keeps it: where it lies, and what it holds, type and bytes, as one
// text that a message can carry.
#pragma once

#include <string>
#include <string_view>

#include "lqhost/rollback/memory.h"
#include "lqregistry/LQPlatformInfo.h"

namespace host {

// The key's path from the registry's root on, so that one key has one path however a record spells it.
std::string absolutePath(const std::string& keyPath);

// "<type>:<bytes>"; a NUL byte, which no message carries, is written as %00 and a per cent sign as %25.
std::string packed(unsigned type, std::string_view data);
// The bytes of it.
std::string dataOf(const std::string& packedValue);

// What the value holds, or an empty text for a key that is there. Nothing when it is absent or cannot be
// read; the view's last error tells which.
PlaceValue readPlace(LQPlatformInfo& registry, const std::string& path, const std::string& name);

// Whether the last read found nothing because there is nothing.
bool isAbsent(const LQPlatformInfo& registry);

// Makes the place hold that. A key that others have put something into is not removed.
bool writePlace(LQPlatformInfo& registry, const MemoryPlace& place, const PlaceValue& value);

}  // namespace host
