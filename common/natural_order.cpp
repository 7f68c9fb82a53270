#include "common/natural_order.h"

#include <algorithm>
#include <compare>

namespace programs {

namespace {

bool isDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

// Not the C library's, which would let the locale of whoever calls decide.
unsigned char withoutCase(char byte) {
  return static_cast<unsigned char>(byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte);
}

// Takes the number that `text` begins with off it; its digits without leading zeros, so 0 has none.
std::string_view takeNumber(std::string_view& text) {
  std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
  text.remove_prefix(digits.size());
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

// The order without the bytes' last word. All digits lie together among the bytes, so it does not matter
// which of them a letter is compared with, and the order of any three names agrees.
std::weak_ordering order(std::string_view a, std::string_view b) {
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      const std::string_view left = takeNumber(a);
      const std::string_view right = takeNumber(b);
      if (left.size() != right.size()) return left.size() <=> right.size();
      if (left != right) return left <=> right;
    } else {
      if (const auto first = withoutCase(a.front()) <=> withoutCase(b.front()); std::is_neq(first))
        return first;
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return a.size() <=> b.size();  // the shorter one has ended
}

}  // namespace

bool comesBefore(std::string_view a, std::string_view b) {
  const std::weak_ordering first = order(a, b);
  return std::is_eq(first) ? a < b : std::is_lt(first);
}

}  // namespace programs
