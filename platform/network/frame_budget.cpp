#include "platform/network/frame_budget.h"

#include <chrono>
#include <thread>
#include <utility>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/interruption.h"

namespace {

// How often a thread that waits for memory looks, also whether the process stops.
constexpr std::chrono::milliseconds kPoll{20};

}  // namespace

FrameBudget::Claim::~Claim() {
  budget_.release(*this);
}

bool FrameBudget::Claim::isGranted() const {
  const std::lock_guard lock(budget_.mutex_);
  return isGranted_;
}

Deadline::Clock::time_point FrameBudget::Claim::grantedAt() const {
  const std::lock_guard lock(budget_.mutex_);
  return grantedAt_;
}

bool FrameBudget::Claim::await(const Deadline& deadline) const {
  while (!isGranted() && !isInterrupted() && deadline.remaining() != Deadline::Clock::duration::zero())
    std::this_thread::sleep_for(kPoll);
  return isGranted();
}

std::unique_ptr<FrameBudget::Claim> FrameBudget::claim(std::size_t bytes, std::function<void()> granted) {
  auto claim = std::unique_ptr<Claim>(new Claim(*this, bytes, std::move(granted)));
  const std::lock_guard lock(mutex_);
  const bool isFirst = queue_.empty();
  if (isFirst && free_ >= bytes) {
    grant(*claim);
  } else {
    queue_.push_back(claim.get());
  }
  return claim;
}

void FrameBudget::grant(Claim& claim) {
  free_ -= claim.bytes_;
  claim.isGranted_ = true;
  claim.grantedAt_ = Deadline::Clock::now();
}

void FrameBudget::release(Claim& claim) {
  const std::lock_guard lock(mutex_);
  if (claim.isGranted_) {
    free_ += claim.bytes_;
  } else {
    queue_.remove(&claim);
  }
  grantNext();
}

void FrameBudget::grantNext() {
  while (!queue_.empty() && queue_.front()->bytes_ <= free_) {
    Claim& next = *queue_.front();
    queue_.pop_front();
    grant(next);
    next.granted_();
  }
}

bool FrameBudget::isContested() const {
  const std::lock_guard lock(mutex_);
  return !queue_.empty();
}

FrameBudget& FrameBudget::ofAccepted() {
  // Never destroyed: sessions may still end while the process's statics are torn down.
  static auto* const budget = new FrameBudget(kFrameBudgetBytes);
  return *budget;
}

FrameBudget& FrameBudget::ofCalling() {
  static auto* const budget = new FrameBudget(kFrameBudgetBytes);
  return *budget;
}
