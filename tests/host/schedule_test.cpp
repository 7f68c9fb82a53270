// When a periodic task runs next: what a status object says is bounded, and failures are tried again soon,
// then less and less often.
#include <gtest/gtest.h>

#include "host/periodic_task.h"

namespace {

TEST(Schedule, TheFrequencyIsHeldToItsBounds) {
  const struct {
    std::uint32_t said;
    std::uint32_t bounded;
  } cases[] = {
      {0, 900}, {1, 5}, {5, 5}, {3600, 3600}, {604800, 604800}, {604801, 604800}, {4294967236, 604800}};
  for (const auto& c : cases) EXPECT_EQ(host::boundedFrequency(c.said), c.bounded) << c.said;
}

TEST(Schedule, FailuresAreRetriedSoonAndThenLessOftenUpToTheFrequency) {
  const struct {
    std::uint32_t frequency;
    unsigned failures;
    double random;
    double delay;
  } cases[] = {{3600, 0, 0.7, 3600},
               {1, 0, 0.7, 5},
               {3600, 1, 0, 15},
               {3600, 1, 1, 30},
               {3600, 2, 1, 60},
               {3600, 3, 0.5, 90},
               {3600, 8, 1, 3600},
               {3600, 8, 0, 1800},
               {3600, 4294967295U, 1, 3600},
               {604800, 4294967295U, 0.5, 453600},
               {5, 1, 1, 5},
               {0, 20, 1, 900}};
  for (const auto& c : cases)
    EXPECT_DOUBLE_EQ(host::nextDelay(c.frequency, c.failures, c.random), c.delay)
        << c.frequency << " s, " << c.failures << " failures, " << c.random;
}

}  // namespace
