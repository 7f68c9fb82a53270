#include "platform/network/interruption.h"

#include <atomic>
#include <mutex>
#include <set>
#include <utility>

namespace {

std::atomic<bool> interrupted{false};

struct Waits {
  std::mutex mutex;
  std::set<Interruptible*> all;
};

// Never destroyed: sessions may still end while the process's statics are torn down.
Waits& waits() {
  static auto* const theWaits = new Waits;
  return *theWaits;
}

}  // namespace

Interruptible::Interruptible(std::function<void()> wake) : wake_(std::move(wake)) {
  const std::lock_guard lock(waits().mutex);
  waits().all.insert(this);
}

Interruptible::~Interruptible() {
  const std::lock_guard lock(waits().mutex);
  waits().all.erase(this);
}

void interruptAll() {
  interrupted = true;
  const std::lock_guard lock(waits().mutex);
  for (Interruptible* const wait : waits().all) wait->wake_();
}

bool isInterrupted() {
  return interrupted;
}
