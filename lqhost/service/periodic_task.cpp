#include "lqhost/service/periodic_task.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "lqregistry/ObDebug.h"

namespace host {

namespace {

// Delays are drawn from this part of their length up to all of it.
constexpr double kJitterFloor = 0.5;
// Beyond this many failures the delay has long reached the frequency.
constexpr unsigned kMaxDoublings = 20;

}  // namespace

std::uint32_t boundedFrequency(std::uint32_t seconds) {
  return seconds == 0 ? kDefaultFrequency : std::clamp(seconds, kMinFrequency, kMaxFrequency);
}

double nextDelay(std::uint32_t frequency, unsigned failures, double random) {
  const double regular = boundedFrequency(frequency);
  if (failures == 0) return regular;
  const double backedOff = std::ldexp(kFirstRetry, static_cast<int>(std::min(failures - 1, kMaxDoublings)));
  return std::min(backedOff, regular) * (kJitterFloor + (1 - kJitterFloor) * random);
}

PeriodicTask::PeriodicTask(const Task& task, TaskCallback onStart, TaskCallback onTimer,
                           std::uint32_t frequency)
    : task_(task), onStart_(onStart), onTimer_(onTimer) {
  status_.setFrequency(frequency);
}

PeriodicTask::~PeriodicTask() {
  requestStop();
  if (thread_.joinable()) thread_.join();
}

void PeriodicTask::start(std::uint32_t spread) {
  if (onStart_ != nullptr) onStart_(&status_);
  const double firstDelay = std::min(spread, boundedFrequency(status_.getFrequency())) * random();
  thread_ = std::thread([this, firstDelay] { run(firstDelay); });
}

void PeriodicTask::requestStop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
}

void PeriodicTask::run(double firstDelay) {
  unsigned failures = 0;
  for (double delay = firstDelay;;) {
    noteNextRun(task_, std::time(nullptr) + std::lround(delay));
    if (!waitFor(delay)) break;
    // A run that another process makes at this moment is as good as one of our own.
    const std::optional<TaskRun> run = runTask(task_, onTimer_, status_);
    failures = run && run->result != 0 ? failures + 1 : 0;
    delay = nextDelay(status_.getFrequency(), failures, random());
  }
  noteNextRun(task_, 0);
}

bool PeriodicTask::waitFor(double seconds) {
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
}

double PeriodicTask::random() {
  return std::uniform_real_distribution<double>(0, 1)(engine_);
}

}  // namespace host
