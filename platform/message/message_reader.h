// A message read from its text, by way of the XML library and each class's list of fields: what a peer sent,
// a cache, a batch. What a class does not know is passed over; what is wrong is refused with the reason, and
// so is what would take more memory, records or depth than lqregistry/CNMessageBase.h allows.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "lqregistry/CNMessageBase.h"

namespace lqmessage {

// Both use the text up: only the wiping of its bytes is left to do.

CWmError readMessage(std::string& text, std::unique_ptr<CNMessageBase>& message);

// Reads without building: of each list only the last record is kept, and secrets stay closed. `records` are
// those of all lists.
CWmError countRecords(std::string& text, std::unique_ptr<CNMessageBase>& last, std::size_t& records);

}  // namespace lqmessage
