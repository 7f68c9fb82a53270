// Which bytes of a text from outside may reach a log, a terminal or a file for people as they are, and how
// the others are written. Log, messages and programs escape with these two calls, to which each adds its own.
//
// Stateless, callable from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "lqregistry/LqExport.h"

namespace lqtext {

// The length in bytes of the printable character in UTF-8 that `bytes` begins with; 0 when there is none: at
// the end, at a control character (those between U+0080 and U+009F included, which terminals obey as well),
// at DEL, and at a byte that is not part of a valid character.
LQ_EXPORT std::size_t printableLength(std::string_view bytes);

// Appends the byte as two hexadecimal digits, in lower case.
LQ_EXPORT void appendHex(std::string& text, char byte);

// The value of a hexadecimal digit, in lower or upper case; -1 for any other character.
LQ_EXPORT int hexValue(char digit);

// Appends the first character of `bytes` as it is, or its first byte as \xHH; returns how many bytes that
// was. `bytes` must not be empty.
LQ_EXPORT std::size_t appendPrintable(std::string& text, std::string_view bytes);

}  // namespace lqtext
