#include "lqregistry/UtcText.h"

#include <array>

namespace {

constexpr const char* kTimeFormat = "%Y-%m-%dT%H:%M:%SZ";
constexpr std::size_t kTimeBuffer = 32;
constexpr std::time_t kFirst = -62167219200;  // 0000-01-01T00:00:00Z
constexpr std::time_t kLast = 253402300799;   // 9999-12-31T23:59:59Z

}  // namespace

std::string lqtext::utcText(std::time_t time) {
  // Calendars for people and programs have four digits for the year, and the system's ends somewhere, too.
  if (time < kFirst || time > kLast) return std::to_string(time);
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::array<char, kTimeBuffer> text{};
  std::strftime(text.data(), text.size(), kTimeFormat, &parts);
  return text.data();
}
