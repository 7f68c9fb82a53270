// When a periodic task runs next: what a status object says is bounded, and failures are tried again soon,
// then less and less often.
#include <gtest/gtest.h>

#include "lqhost/service/periodic_task.h"

namespace {

TEST(PeriodicTask, TheFrequencyIsBoundedAndFailuresAreRetriedSoonAndThenLessOften) {
  using Case = std::tuple<std::uint32_t, unsigned, double, double>;
  for (const auto& [frequency, failures, random, delay] :
       {Case{0, 0, 0.7, 900}, Case{1, 0, 0.7, 5}, Case{3600, 0, 0.7, 3600}, Case{604801, 0, 0.7, 604800},
        Case{3600, 1, 0, 15}, Case{3600, 1, 1, 30}, Case{3600, 3, 0.5, 90}, Case{3600, 8, 0, 1800},
        Case{604800, 4294967295U, 0.5, 453600}, Case{5, 1, 1, 5}})
    EXPECT_DOUBLE_EQ(host::nextDelay(frequency, failures, random), delay)
        << frequency << " s, " << failures << " failures, " << random;
  EXPECT_DOUBLE_EQ(host::firstDelay(300, 3600, 0.5), 150);
  EXPECT_DOUBLE_EQ(host::firstDelay(300, 60, 0.5), 30) << "no later than a second run could come";
}

}  // namespace
