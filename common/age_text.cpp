#include "common/age_text.h"

#include <iterator>

namespace programs {

namespace {

constexpr std::uint64_t kDay = 86400;
constexpr std::uint64_t kYear = 365 * kDay;
// What is younger says no more than that it happened: by the time it is read the number is another one.
constexpr std::uint64_t kJustNow = 10;

struct Unit {
  std::uint64_t seconds;
  const char* name;
};
constexpr Unit kUnits[] = {{kYear, " years"},
                           {kYear / 12, " months"},
                           {7 * kDay, " weeks"},
                           {kDay, " days"},
                           {3600, " h"},
                           {60, " min"},
                           {1, " s"}};

std::string inUnits(std::uint64_t seconds) {
  const Unit* unit = std::begin(kUnits);
  while (unit->seconds > 1 && seconds < 2 * unit->seconds) ++unit;
  return std::to_string(seconds / unit->seconds) + unit->name;
}

}  // namespace

// Both subtract without a sign: the lowest number has no counterpart, and times that were read may lie
// anywhere.

std::string durationText(std::int64_t seconds) {
  const auto length = static_cast<std::uint64_t>(seconds);
  return seconds < 0 ? "-" + inUnits(0 - length) : inUnits(length);
}

std::string ageText(std::int64_t time, std::int64_t now) {
  if (time == 0) return "never";
  if (time > now) return "in the future";
  const std::uint64_t age = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(time);
  return age < kJustNow ? "just now" : inUnits(age) + " ago";
}

}  // namespace programs
