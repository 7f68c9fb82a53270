#include "platform/message/text_escape.h"

#include <cstddef>
#include <cstdint>

namespace lqmessage {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

// Length of the valid XML character in UTF-8 that `bytes` begins with; 0 when there is none.
std::size_t characterLength(std::string_view bytes) {
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
  constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
  const bool isNoncharacter = code == 0xfffe || code == 0xffff;
  const bool isC1Control = code < 0xa0;
  return code < kSmallest[length] || code > 0x10ffff || isSurrogate || isNoncharacter || isC1Control ? 0
                                                                                                     : length;
}

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
    std::size_t length = characterLength(bytes);
    if (length == 0) {
      const auto byte = static_cast<unsigned char>(bytes[0]);
      text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
      length = 1;
    } else if (bytes[0] == '\\') {
      text += "\\\\";
    } else {
      text += bytes.substr(0, length);
    }
    bytes.remove_prefix(length);
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
