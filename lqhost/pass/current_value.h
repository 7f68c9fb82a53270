// What the registry holds for a key record, for reports that compare before and after.
#pragma once

#include <optional>
#include <string>

#include "lqregistry/OBGui.h"

namespace host {

// The value's data, the empty text for a sub-key, nothing when absent.
using CurrentValue = std::optional<std::string>;

CurrentValue currentValue(const OBGui::RegistryKeyInfo& key);

}  // namespace host
