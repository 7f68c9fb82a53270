// The instance in focus, as the commands see it.
#pragma once

#include <string>

namespace host {

// The instance's name; never empty.
std::string instanceName();

// Whether this instance has joined a server; says on standard error what to do when it has not.
bool requireJoined();

// The base directory, where the host keeps what it notes; empty when the instance has none.
std::string baseDirectory();

}  // namespace host
