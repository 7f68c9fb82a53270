// The asking end of the resident host's socket: what a command does when one is there.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "lqhost/command_result.h"
#include "lqhost/service/command_protocol.h"
#include "lqregistry/CWmError.h"

namespace host {

// What the resident host answers; nothing when there is none. One that is there and does not answer is an
// error: working beside it is not an alternative. One that just starts or stops is waited for.
inline constexpr std::chrono::milliseconds kResidentWait{10'000};
CWmError askResident(const std::string& question, std::optional<CommandResult>& answer,
                     std::chrono::milliseconds wait = kResidentWait);

}  // namespace host
