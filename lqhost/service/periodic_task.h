// A periodic task of the resident host: a thread that runs the task again and again until it is stopped.
//
// The first run comes after a random part of the spread, so that a fleet that starts together does not arrive
// together. After a run that succeeded, the next one is due after the frequency in the task's status object,
// which the callback may change at each run. After one that failed it is tried again soon, then less and less
// often up to the frequency, each time with jitter. One thread a task means that a task never runs twice at
// once. Somebody who knows that a run is needed sooner says so with runSoon().
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "common/sync_period.h"
#include "lqhost/service/product_library.h"
#include "lqhost/service/task_runs.h"

namespace host {

// Seconds between two runs: of a task whose status object says nothing, and the bounds that what it says is
// held to.
inline constexpr std::uint32_t kDefaultFrequency = programs::kSynchronisationPeriod;
inline constexpr std::uint32_t kMinFrequency = 5;
inline constexpr std::uint32_t kMaxFrequency = 7 * 24 * 3600;
// The first retry after a failure comes after about this many seconds; each further failure doubles it.
inline constexpr std::uint32_t kFirstRetry = 30;
// Most seconds over which first runs are spread, unless the command line says otherwise.
inline constexpr std::uint32_t kDefaultSpread = 300;

// A frequency held to the bounds; 0 gives the default.
std::uint32_t boundedFrequency(std::uint32_t seconds);

// Seconds until the first run, of first runs that are spread over `spread` seconds; `random` is from 0 to 1.
double firstDelay(std::uint32_t spread, std::uint32_t frequency, double random);

// Seconds until the next run after `failures` failed ones in a row; `random` likewise.
double nextDelay(std::uint32_t frequency, unsigned failures, double random);

class PeriodicTask {
 public:
  // One run; false when it should be tried again soon.
  using Run = std::function<bool(LqPeriodicTaskStatus&)>;

  // `onStart` is the task's start callback and may be null. `frequency` is what the status object says until
  // a run sets another.
  PeriodicTask(const Task& task, TaskCallback onStart, Run run, std::uint32_t frequency);
  ~PeriodicTask();
  PeriodicTask(const PeriodicTask&) = delete;
  PeriodicTask& operator=(const PeriodicTask&) = delete;

  // Calls the start callback and begins; first runs are spread over `spread` seconds.
  void start(std::uint32_t spread);

  // The next run comes at once: now, or after the one under way. Any thread.
  void runSoon();

  // Begins no further run. The destructor waits for the one under way.
  void requestStop();

 private:
  void runAgainAndAgain(double delay);
  // Until the time has passed or a run is wanted. False when the task is to stop.
  bool waitFor(double seconds);
  double random();

  const Task& task_;
  TaskCallback onStart_;
  Run run_;
  LqPeriodicTaskStatus status_;
  std::mt19937 engine_{std::random_device{}()};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;  // guarded by mutex_
  bool soon_ = false;      // likewise
  std::thread thread_;
};

}  // namespace host
