// The order of names and the words for lengths of time that lists are made of.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "common/age_text.h"
#include "common/natural_order.h"

namespace {

// Each stands before all that follow, and after none of them: an order that contradicted itself would mix up
// lists.
TEST(NaturalOrder, PutsNamesAsPeopleCountAndCase) {
  const std::string digits(30, '9');
  const std::vector<std::string> ordered = {
      "",       "-",     "007",    "07",     "7",  "8",   "10",  digits, "1" + digits, ":",
      "@",      "[",     "_",      "a",      "a0", "a00", "a0b", "a00c", "a1",         "a1-",
      "a1b1",   "A1b2",  "a1b02",  "a1b2",   "a2", "aa",  "B",   "b",    "Web-1",      "WEB-2",
      "web-02", "web-2", "web-2a", "web-10", "Z",  "z",   "{",   "\x7f", "\xc3\xa9"};
  for (std::size_t i = 0; i < ordered.size(); ++i)
    for (std::size_t j = 0; j < ordered.size(); ++j)
      EXPECT_EQ(programs::comesBefore(ordered[i], ordered[j]), i < j) << ordered[i] << " and " << ordered[j];
}

TEST(AgeText, SaysHowLongAsPeopleDo) {
  constexpr std::int64_t kHour = 3600, kDay = 24 * kHour, kMonth = 2628000, kYear = 365 * kDay;
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  const std::pair<std::int64_t, std::string> lengths[] = {{10, "10 s"},
                                                          {119, "119 s"},
                                                          {120, "2 min"},
                                                          {2 * kHour - 1, "119 min"},
                                                          {2 * kHour, "2 h"},
                                                          {2 * kDay - 1, "47 h"},
                                                          {2 * kDay, "2 days"},
                                                          {14 * kDay - 1, "13 days"},
                                                          {14 * kDay, "2 weeks"},
                                                          {2 * kMonth - 1, "8 weeks"},
                                                          {2 * kMonth, "2 months"},
                                                          {2 * kYear - 1, "23 months"},
                                                          {2 * kYear, "2 years"}};
  for (const auto& [seconds, text] : lengths) {
    EXPECT_EQ(programs::durationText(seconds), text);
    EXPECT_EQ(programs::durationText(-seconds), "-" + text);
    EXPECT_EQ(programs::ageText(kMost - seconds, kMost), text + " ago");
  }
  EXPECT_EQ(programs::durationText(0), "0 s");
  EXPECT_EQ(programs::durationText(-kMost - 1), "-292471208677 years");
  const std::tuple<std::int64_t, std::int64_t, const char*> ages[] = {
      {0, 5, "never"},     {5, 5, "just now"},      {5, 14, "just now"},
      {5, 15, "10 s ago"}, {6, 5, "in the future"}, {-kMost, kMost, "584942417355 years ago"}};
  for (const auto& [time, now, text] : ages) EXPECT_EQ(programs::ageText(time, now), text);
}

}  // namespace
