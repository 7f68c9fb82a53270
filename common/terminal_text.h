// Values from outside, made harmless to a terminal.
#pragma once

#include <string>
#include <string_view>

namespace programs {

// Printable on a terminal: control characters, the two-byte ones of UTF-8 and those that turn the direction
// of the text included, and bytes that are not valid UTF-8 become \n, \t or \xHH, and a backslash \\.
std::string escapedForTerminal(std::string_view text);

}  // namespace programs
