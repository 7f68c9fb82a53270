// What the server's machine calls itself.
#pragma once

#include <string>

// Empty when the system does not tell.
std::string ownHostName();
