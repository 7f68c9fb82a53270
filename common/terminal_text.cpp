#include "common/terminal_text.h"

#include "lqregistry/PrintableText.h"

namespace programs {

namespace {

// What turns the direction of the text behind it, U+202A to U+202E and U+2066 to U+2069: a name could make
// the rest of its line look like something else.
bool turnsTheText(std::string_view text) {
  if (text.size() < 3 || text[0] != '\xe2') return false;
  const auto last = static_cast<unsigned char>(text[2]);
  return (text[1] == '\x80' && last >= 0xaa && last <= 0xae) ||
         (text[1] == '\x81' && last >= 0xa6 && last <= 0xa9);
}

}  // namespace

std::string escapedForTerminal(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::size_t length = 1;
    if (text[0] == '\\') {
      result += "\\\\";
    } else if (text[0] == '\n') {
      result += "\\n";
    } else if (text[0] == '\t') {
      result += "\\t";
    } else if (turnsTheText(text)) {
      for (length = 0; length < 3; ++length) {
        result += "\\x";
        lqtext::appendHex(result, text[length]);
      }
    } else {
      length = lqtext::appendPrintable(result, text);
    }
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace programs
