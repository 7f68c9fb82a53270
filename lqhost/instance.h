// The instance in focus, as the commands see it.
#pragma once

#include <optional>
#include <string>

#include "lqhost/command_result.h"

namespace host {

// The instance's name; never empty.
std::string instanceName();

// Nothing when this instance has joined a server; otherwise what to do about it, as a command's result.
std::optional<CommandResult> whyNotJoined();

// The base directory, where the host keeps what it notes; empty when the instance has none.
std::string baseDirectory();

// The path of a file in it.
std::string pathInBase(const std::string& name);

}  // namespace host
