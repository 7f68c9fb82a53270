#include "lqhost/service/periodic_task.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <exception>
#include <utility>

#include "lqregistry/ObDebug.h"

namespace host {

namespace {

// Delays are drawn from this part of their length up to all of it.
constexpr double kJitterFloor = 0.5;
// Beyond this many failures the delay has long reached the frequency.
constexpr unsigned kMaxDoublings = 20;
constexpr const char* kTag = "host::PeriodicTask";

// What ends in an exception counts as failed, and must not take the host with it.
bool guarded(const Task& task, const std::function<bool()>& step) {
  try {
    return step();
  } catch (const std::exception& fault) {
    ObEvent().Error(kTag, "Task [%s] broke off: %s", task.name, fault.what());
    return false;
  }
}

void noteNext(const Task& task, std::int64_t time) {
  guarded(task, [&task, time] {
    noteNextRun(task, time);
    return true;
  });
}

}  // namespace

std::uint32_t boundedFrequency(std::uint32_t seconds) {
  return seconds == 0 ? kDefaultFrequency : std::clamp(seconds, kMinFrequency, kMaxFrequency);
}

double firstDelay(std::uint32_t spread, std::uint32_t frequency, double random) {
  return std::min(spread, boundedFrequency(frequency)) * random;
}

double nextDelay(std::uint32_t frequency, unsigned failures, double random) {
  const double regular = boundedFrequency(frequency);
  if (failures == 0) return regular;
  const double backedOff = std::ldexp(kFirstRetry, static_cast<int>(std::min(failures - 1, kMaxDoublings)));
  return std::min(backedOff, regular) * (kJitterFloor + (1 - kJitterFloor) * random);
}

PeriodicTask::PeriodicTask(const Task& task, TaskCallback onStart, Run run, std::uint32_t frequency)
    : task_(task), onStart_(onStart), run_(std::move(run)) {
  status_.setFrequency(frequency);
}

PeriodicTask::~PeriodicTask() {
  requestStop();
  if (thread_.joinable()) thread_.join();
}

void PeriodicTask::start(std::uint32_t spread) {
  if (onStart_ != nullptr) onStart_(&status_);
  const double delay = firstDelay(spread, status_.getFrequency(), random());
  thread_ = std::thread([this, delay] { runAgainAndAgain(delay); });
}

void PeriodicTask::runSoon() {
  {
    const std::lock_guard lock(mutex_);
    soon_ = true;
  }
  changed_.notify_all();
}

void PeriodicTask::requestStop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

void PeriodicTask::runAgainAndAgain(double delay) {
  for (unsigned failures = 0;;) {
    noteNext(task_, std::time(nullptr) + std::lround(delay));
    if (!waitFor(delay)) break;
    failures = guarded(task_, [this] { return run_(status_); }) ? 0 : failures + 1;
    delay = nextDelay(status_.getFrequency(), failures, random());
  }
  noteNext(task_, 0);
}

bool PeriodicTask::waitFor(double seconds) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_ || soon_; });
  soon_ = false;
  return !stopping_;
}

double PeriodicTask::random() {
  return std::uniform_real_distribution<double>(0, 1)(engine_);
}

}  // namespace host
