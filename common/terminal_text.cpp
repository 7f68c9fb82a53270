#include "common/terminal_text.h"

#include "lqregistry/PrintableText.h"

namespace programs {

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
    } else {
      length = lqtext::appendPrintable(result, text);
    }
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace programs
