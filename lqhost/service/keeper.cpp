#include "lqhost/service/keeper.h"

#include <chrono>
#include <exception>

#include "lqhost/rollback/standing_memory.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

// A wait is counted by a clock that stands still while the machine sleeps; the deadline is not. Looking costs
// one line of a file, and a try that failed is not repeated sooner.
constexpr std::int64_t kLookEvery = 5;

}  // namespace

Keeper::~Keeper() {
  requestStop();
  if (thread_.joinable()) thread_.join();
}

void Keeper::start() {
  thread_ = std::thread([this] { keep(); });
}

void Keeper::requestStop() {
  passes_.requestStop();
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  stopped_.notify_all();
}

void Keeper::keep() {
  for (;;) {
    std::int64_t wait = kLookEvery;
    try {
      passes_.keepDeadline();
      const std::int64_t left = secondsUntilGoingBack().value_or(kLookEvery);
      if (left > 0 && left < wait) wait = left;
    } catch (const std::exception& fault) {
      ObEvent().Error("host::Keeper", "Keeping a deadline broke off: %s", fault.what());
    }
    std::unique_lock lock(mutex_);
    if (stopped_.wait_for(lock, std::chrono::seconds(wait), [this] { return isStopping_; })) return;
  }
}

}  // namespace host
