#include "lqregistry/PrintableText.h"

#include <cstdint>

std::size_t lqtext::printableLength(std::string_view bytes) {
  if (bytes.empty()) return 0;
  const auto at = [bytes](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i]));
  };
  const std::uint32_t first = at(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || bytes.size() < length) return 0;
  std::uint32_t code = first & (0xffU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (at(i) & 0x3f);
  }
  // Of two, three and four bytes; what two bytes could hold below that are the C1 controls.
  constexpr std::uint32_t kSmallest[] = {0xa0, 0x800, 0x10000};
  const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
  const bool isNoncharacter = (code | 1) == 0xffff;
  const bool isPrintable =
      code >= kSmallest[length - 2] && code <= 0x10ffff && !isSurrogate && !isNoncharacter;
  return isPrintable ? length : 0;
}

void lqtext::appendHex(std::string& text, char byte) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto bits = static_cast<unsigned char>(byte);
  text += kDigits[bits >> 4];
  text += kDigits[bits & 15];
}

int lqtext::hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

std::size_t lqtext::appendPrintable(std::string& text, std::string_view bytes) {
  if (const std::size_t length = printableLength(bytes); length != 0) {
    text += bytes.substr(0, length);
    return length;
  }
  text += "\\x";
  appendHex(text, bytes[0]);
  return 1;
}
