// How a client may be called at the server.
#pragma once

#include <string>

// Whether it can be a client's name, which is also the name of its files: 1 to 64 characters of
// A-Z a-z 0-9 . _ - without a dot at the start.
bool isClientName(const std::string& name);
