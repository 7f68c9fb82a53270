// What the registry holds for a key record, for reports that compare before and after.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lqregistry/OBGui.h"

namespace host {

// The value's data, the empty text for a sub-key, nothing when absent.
using CurrentValue = std::optional<std::string>;

// What the registry holds for each of the records, all at one moment; as long as the list.
std::vector<CurrentValue> currentValues(const OBGui::KeyList& keys);

}  // namespace host
