// The instance in focus, as the commands see it.
#pragma once

#include <string>

namespace host {

// The instance's name; never empty.
std::string instanceName();

// The base directory, where the host keeps what it notes; empty when the instance has none.
std::string baseDirectory();

// The path of a file in it.
std::string pathInBase(const std::string& name);

}  // namespace host
