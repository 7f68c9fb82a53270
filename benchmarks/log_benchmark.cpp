// A log line below the threshold against its floor, the comparison itself.
#include <benchmark/benchmark.h>

#include <atomic>

#include "lqregistry/ObDebug.h"

namespace {

std::atomic<int> threshold{1};

void BM_CompareLevel_floor(benchmark::State& state) {
  int shown = 0;
  for (auto _ : state) {
    int level = 10;
    benchmark::DoNotOptimize(level);
    if (level <= threshold.load(std::memory_order_relaxed)) ++shown;
  }
  benchmark::DoNotOptimize(shown);
}
BENCHMARK(BM_CompareLevel_floor);

void BM_LogLineBelowThreshold(benchmark::State& state) {
  const ObEvent event;
  for (auto _ : state) event.DebugLvl(10, "tag", "set value = %s for key = %s", "value", "name");
}
BENCHMARK(BM_LogLineBelowThreshold);

}  // namespace
