// What a command looks at before it gets to work itself: whether it can, and whether a resident host does it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "lqhost/command_result.h"
#include "lqhost/service/ask_resident.h"

namespace host {

// Nothing when this instance has joined a server; otherwise what to do about it. Where the newest changes
// have taken that from it, it is a failure that passes, and says when.
std::optional<CommandResult> whyNotJoined();

// What keeps from the work; where it is time to go back from changes that may have brought it about, what
// does so afterwards.
using WhyNot = std::function<std::optional<CommandResult>()>;
std::optional<CommandResult> whyNotEvenAfterGoingBack(const WhyNot& whyNot);

// What the resident host answers; nothing when there is none. One that is there and does not answer is a
// failure that says so: working beside it is not an alternative.
std::optional<CommandResult> answerOfResident(const std::string& question,
                                              std::chrono::milliseconds wait = kResidentWait);

}  // namespace host
