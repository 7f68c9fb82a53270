// A log line below the threshold, beside the comparison with the threshold itself.
#include <atomic>

#include "benchmarks/rows.h"
#include "lqregistry/ObDebug.h"

namespace bench {

namespace {

std::atomic<int> threshold{1};
volatile int lineLevel = 10;  // not known when this is compiled

Figures eachOf(std::size_t size, const std::function<void()>& all) {
  return {{"ns", millisecondsOf(all) * 1e6 / static_cast<double>(size)}};
}

}  // namespace

void logRow(std::size_t size) {
  const ObEvent event;
  const auto ours = [&] {
    for (std::size_t i = 0; i < size; ++i)
      event.DebugLvl(lineLevel, "tag", "set value = %s for key = %s", "value", "name");
  };
  const auto comparison = [&] {
    std::size_t shown = 0;
    for (std::size_t i = 0; i < size; ++i)
      if (lineLevel <= threshold.load(std::memory_order_relaxed)) ++shown;
    demand(shown == 0, "it was shown");
  };
  compare({"log", "", size}, {{"ours", {}, [&] { return eachOf(size, ours); }, {}},
                              {"floor", {}, [&] { return eachOf(size, comparison); }, {}}});
}

}  // namespace bench
