// What became of the changes that passes made: the last of it, a line each, in <registry>.<instance>.history.
#pragma once

#include <string>

#include "lqhost/rollback/memory.h"

namespace host {

inline constexpr std::size_t kHistoryLines = 50;

// Adds a line of now: `event` in a word or two, and the memory it is about. Best effort: what it is about has
// happened, whether it can be noted or not.
void noteInHistory(const std::string& event, const ChangeMemory& memory, const std::string& reason);

// All lines, the oldest first, as they may be shown on a terminal; empty when there are none.
std::string historyText();

}  // namespace host
