// A point in time by which a step must be done, made from the whole seconds that a session's operations get
// as their time-out.
#pragma once

#include <chrono>
#include <cstddef>

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  // A negative number of seconds means no limit.
  static Deadline in(int seconds) {
    Deadline deadline;
    deadline.limited_ = seconds >= 0;
    if (deadline.limited_) deadline.end_ = Clock::now() + std::chrono::seconds(seconds);
    return deadline;
  }

  bool limited() const { return limited_; }

  // Never negative; only for a limited deadline.
  Clock::duration remaining() const {
    const auto left = end_ - Clock::now();
    return left > Clock::duration::zero() ? left : Clock::duration::zero();
  }

  // The earlier of this and so much from now.
  Deadline within(Clock::duration time) const {
    Deadline deadline = *this;
    const auto end = Clock::now() + time;
    if (!limited_ || end < end_) deadline.end_ = end;
    deadline.limited_ = true;
    return deadline;
  }

  // The deadline of the first of `parts` attempts that share the time left, so that one that hangs leaves
  // time for the others.
  Deadline share(std::size_t parts) const {
    Deadline deadline = *this;
    if (limited_) deadline.end_ = Clock::now() + remaining() / static_cast<Clock::rep>(parts);
    return deadline;
  }

 private:
  bool limited_ = false;
  Clock::time_point end_{};
};
