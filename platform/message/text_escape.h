// Bytes that XML cannot carry, written as printable text and back.
#pragma once

#include <string>
#include <string_view>

namespace lqmessage {

// Appends the bytes as the value of an attribute in double quotes: control characters, DEL, and bytes that
// are not part of a valid XML character in UTF-8 become \xHH, a backslash becomes \\, and what is markup to
// XML becomes an entity.
void appendAttribute(std::string& text, std::string_view bytes);

// The same for a text that is one already: entities only, for control characters as well.
void appendEntities(std::string& text, std::string_view bytes);

// Whether unescape has anything to do but to copy.
inline bool isEscaped(std::string_view text) {
  return text.find('\\') != std::string_view::npos;
}

// The bytes again, once the XML library has resolved the entities; false for a backslash that starts neither
// of the two forms.
bool unescape(std::string_view text, std::string& bytes);

}  // namespace lqmessage
