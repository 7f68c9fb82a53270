// When a periodic task runs next: what a status object says is bounded, and failures are tried again soon,
// then less and less often.
#include "lqhost/service/periodic_task.h"

#include "tests/support/product_fixture.h"

namespace {

using PeriodicTask = ProductTest;
using Case = std::tuple<std::uint32_t, unsigned, double, double>;

TEST_F(PeriodicTask, TheFrequencyIsBoundedAndFailuresAreRetriedSoonAndThenLessOften) {
  const Case cases[] = {
      {0, 0, 0.7, 900},           {1, 0, 0.7, 5},          {3600, 0, 0.7, 3600}, {5, 1, 1, 5},
      {3600, 1, 0, 15},           {3600, 1, 1, 30},        {3600, 3, 0.5, 90},   {3600, 8, 0, 1800},
      {604800, ~0U, 0.5, 453600}, {604801, 0, 0.7, 604800}};
  for (const auto& [frequency, failures, random, delay] : cases)
    EXPECT_DOUBLE_EQ(host::nextDelay(frequency, failures, random), delay)
        << frequency << " s, " << failures << " failures, " << random;
  EXPECT_DOUBLE_EQ(host::firstDelay(300, 3600, 0.5), 150);
  EXPECT_DOUBLE_EQ(host::firstDelay(300, 60, 0.5), 30) << "no later than a second run could come";

  join();
  const auto next = [] { return host::readNote(host::kRefreshTask).value_or(host::TaskNote()).nextRun; };
  for (const char* const end : {"done", "failed", "no room"}) {
    const auto run = [end](auto&) { return *end == 'n' ? throw std::runtime_error(end) : *end == 'd'; };
    host::PeriodicTask task(host::kRefreshTask, nullptr, run, host::kMaxFrequency);
    task.start(0);
    while (next() <= std::time(nullptr)) std::this_thread::yield();
    EXPECT_EQ(next() > std::time(nullptr) + 3600, *end == 'd') << end;
  }
}

}  // namespace
