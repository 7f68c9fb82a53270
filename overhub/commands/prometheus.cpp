#include "overhub/commands/prometheus.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>

#include "lqregistry/PrintableText.h"

namespace {

// As the format has it: UTF-8, with the end of a line and what is `special` escaped. It knows no other
// escapes, so what else is not printable becomes the replacement character.
std::string escaped(std::string_view text, std::string_view special) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = lqtext::printableLength(text);
    if (text.front() == '\n') {
      result += "\\n";
    } else if (special.find(text.front()) != std::string_view::npos) {
      result += {'\\', text.front()};
    } else if (length == 0) {
      result += "\xef\xbf\xbd";
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return result;
}

// Counts in full, everything else in the shortest form that is read back as the same number, and what is no
// number in the format's own words.
std::string numberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-Inf" : "+Inf";
  constexpr double kExact = 9007199254740992;  // 2 to the 53rd, up to where a double holds every count
  if (std::abs(value) <= kExact && std::trunc(value) == value)
    return std::to_string(static_cast<std::int64_t>(value));
  std::array<char, 32> text{};  // the longest has 24 characters
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

}  // namespace

void MetricsText::family(Name name, Type type, std::string_view help) {
  family_ = name.text();
  text_ += "# HELP " + family_ + " " + escaped(help, "\\") + "\n";
  text_ += "# TYPE " + family_ + (type == Type::counter ? " counter\n" : " gauge\n");
}

void MetricsText::add(double value, const std::vector<Label>& labels) {
  text_ += family_;
  char before = '{';
  for (const Label& label : labels) {
    text_ += before;
    text_ += label.name.text();
    text_ += "=\"" + escaped(label.value, "\\\"") + "\"";
    before = ',';
  }
  if (!labels.empty()) text_ += '}';
  text_ += " " + numberText(value) + "\n";
}
