#include "platform/message/text_escape.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "lqregistry/PrintableText.h"

namespace lqmessage {

namespace {

constexpr unsigned char kFirstPrintable = 0x20;

// Bytes that stand for themselves; most of all text is nothing else.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> plain{};
  for (std::size_t byte = kFirstPrintable; byte < 0x7f; ++byte) plain[byte] = true;
  for (const char markup : std::string_view("\\&<\"")) plain[static_cast<unsigned char>(markup)] = false;
  return plain;
}();

std::size_t plainLength(std::string_view bytes) {
  std::size_t length = 0;
  while (length < bytes.size() && kPlain[static_cast<unsigned char>(bytes[length])]) ++length;
  return length;
}

// False for a byte that is no markup.
bool appendEntity(std::string& text, char byte) {
  switch (byte) {
    case '&':
      text += "&amp;";
      return true;
    case '<':
      text += "&lt;";
      return true;
    case '"':
      text += "&quot;";
      return true;
    default:
      return false;
  }
}

// As appendPrintable writes them, in lower case only.
int digitValue(char c) {
  return c >= 'A' && c <= 'F' ? -1 : lqtext::hexValue(c);
}

}  // namespace

void appendAttribute(std::string& text, std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t plain = plainLength(bytes);
    text += bytes.substr(0, plain);
    bytes.remove_prefix(plain);
    if (bytes.empty()) return;
    if (bytes[0] == '\\') {
      text += "\\\\";
      bytes.remove_prefix(1);
    } else if (appendEntity(text, bytes[0])) {
      bytes.remove_prefix(1);
    } else {
      bytes.remove_prefix(lqtext::appendPrintable(text, bytes));
    }
  }
}

void appendEntities(std::string& text, std::string_view bytes) {
  for (const char byte : bytes) {
    if (appendEntity(text, byte)) continue;
    if (static_cast<unsigned char>(byte) >= kFirstPrintable)
      text += byte;
    else
      text.append("&#") += std::to_string(byte / 10) + std::to_string(byte % 10) + ';';
  }
}

bool unescape(std::string_view text, std::string& bytes) {
  const std::size_t plain = std::min(text.find('\\'), text.size());
  bytes.assign(text, 0, plain);
  for (std::size_t i = plain; i < text.size(); ++i) {
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
