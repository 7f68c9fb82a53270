// Bytes that XML cannot carry, written as printable text and back.
#pragma once

#include <string>
#include <string_view>

namespace lqmessage {

// Control characters, DEL, and bytes that are not part of a valid XML character in UTF-8 become \xHH, a
// backslash becomes \\; everything else stays as it is.
std::string escaped(std::string_view bytes);

// The bytes again; false for a backslash that starts neither of the two forms.
bool unescape(std::string_view text, std::string& bytes);

}  // namespace lqmessage
