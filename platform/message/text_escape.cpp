#include "platform/message/text_escape.h"

#include <cstddef>

#include "lqregistry/PrintableText.h"

namespace lqmessage {

namespace {

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string escaped(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    if (bytes[0] == '\\') text += '\\';
    bytes.remove_prefix(lqtext::appendPrintable(text, bytes));
  }
  return text;
}

bool unescape(std::string_view text, std::string& bytes) {
  bytes.clear();
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
    } else if (i + 1 < text.size() && text[i + 1] == '\\') {
      bytes += '\\';
      i += 1;
    } else {
      if (i + 3 >= text.size() || text[i + 1] != 'x') return false;
      const int high = digitValue(text[i + 2]);
      const int low = digitValue(text[i + 3]);
      if (high < 0 || low < 0) return false;
      bytes += static_cast<char>(high << 4 | low);
      i += 3;
    }
  }
  return true;
}

}  // namespace lqmessage
