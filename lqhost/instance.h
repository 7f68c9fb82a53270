// The instance in focus, as the commands see it.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"

namespace host {

// The instance's name; never empty.
std::string instanceName();

// An error, which says what to do about it, unless this instance has joined a server.
CWmError checkJoined();

// The base directory, where the host keeps what it notes; empty when the instance has none.
std::string baseDirectory();

// The path of a file in it.
std::string pathInBase(const std::string& name);

}  // namespace host
