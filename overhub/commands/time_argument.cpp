#include "overhub/commands/time_argument.h"

#include <charconv>
#include <ctime>
#include <limits>
#include <string_view>

namespace {

// The seconds of a unit; 0 for none.
std::int64_t secondsOf(std::string_view unit) {
  if (unit.empty() || unit == "s") return 1;
  if (unit == "m") return 60;
  if (unit == "h") return 3600;
  if (unit == "d") return 86400;
  return unit == "w" ? 7 * 86400 : 0;
}

// A number without a sign, which `rest` follows.
bool readNumber(std::string_view text, std::int64_t& number, std::string_view& rest) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  rest = text.substr(static_cast<std::size_t>(end - text.data()));
  return fault == std::errc() && number >= 0 && !text.starts_with('-');
}

// So that no clock runs over with it.
constexpr std::int64_t kLongest = std::numeric_limits<std::int64_t>::max() / 2;

bool readFromNow(std::string_view text, std::int64_t& seconds) {
  std::string_view unit;
  if (!readNumber(text, seconds, unit)) return false;
  const std::int64_t each = secondsOf(unit);
  return each != 0 && !__builtin_mul_overflow(seconds, each, &seconds) && seconds <= kLongest;
}

bool readCalendar(const std::string& text, std::int64_t& time) {
  std::tm fields{};
  const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M", &fields);
  if (end != nullptr && *end == ':') end = ::strptime(end, ":%S", &fields);
  if (end == nullptr || (*end != '\0' && std::string_view(end) != "Z")) return false;
  const std::tm given = fields;
  time = ::timegm(&fields);
  // A day that the month does not have has become one of the next.
  return time >= 0 && fields.tm_mday == given.tm_mday && fields.tm_sec == given.tm_sec;
}

bool readFixed(const std::string& text, std::int64_t& time) {
  std::string_view rest;
  return (readNumber(text, time, rest) && rest.empty()) || readCalendar(text, time);
}

CWmError noTime(const std::string& text) {
  return {kLqErrArgument, "\"" + text + "\" is no time; it takes " + kTimeForms};
}

}  // namespace

CWmError readTime(const std::string& text, TypedTime& time) {
  time.isFromNow = text.starts_with('+');
  const bool isRead = time.isFromNow ? readFromNow(std::string_view(text).substr(1), time.seconds)
                                     : readFixed(text, time.seconds);
  return isRead ? CWmError() : noTime(text);
}

CWmError readFixedTime(const std::string& text, std::int64_t& time) {
  return readFixed(text, time) ? CWmError() : noTime(text);
}
