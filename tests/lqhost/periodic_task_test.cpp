// When a periodic task runs next: what a status object says is bounded, and failures are tried again soon,
// then less and less often.
#include <gtest/gtest.h>

#include "lqhost/service/periodic_task.h"

namespace {

TEST(PeriodicTask, TheFrequencyIsBoundedAndFailuresAreRetriedSoonAndThenLessOften) {
  const std::tuple<std::uint32_t, unsigned, double, double> cases[] = {{0, 0, 0.7, 900},
                                                                       {1, 0, 0.7, 5},
                                                                       {3600, 0, 0.7, 3600},
                                                                       {604801, 0, 0.7, 604800},
                                                                       {3600, 1, 0, 15},
                                                                       {3600, 1, 1, 30},
                                                                       {3600, 3, 0.5, 90},
                                                                       {3600, 8, 0, 1800},
                                                                       {604800, 4294967295U, 0.5, 453600},
                                                                       {5, 1, 1, 5}};
  for (const auto& [frequency, failures, random, delay] : cases)
    EXPECT_DOUBLE_EQ(host::nextDelay(frequency, failures, random), delay)
        << frequency << " s, " << failures << " failures, " << random;
}

}  // namespace
