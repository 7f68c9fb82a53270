// What the frames that a process receives may hold of its memory, together.
//
// A frame beyond kUnclaimedBytes needs a claim on its whole size before it is read on. Claims are granted in
// the order in which they were asked for, whatever their size, so that a large one is not starved by small
// ones; and since one largest frame always fits and a claim is never added to, nobody waits for somebody who
// waits. Whoever holds a claim and does not get on is for the room to see to (waiting_room.h).
//
// There are two budgets: one for sessions that were accepted, whose claims last until the request is
// answered, and one for those that call, whose claims last until the answer is read. A request may lead to a
// call and so never waits for itself. Any thread may use a budget.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "platform/network/deadline.h"

// Frames up to this size take no claim: what every session may hold without asking.
inline constexpr std::size_t kUnclaimedBytes = 64U << 10;

class FrameBudget {
 public:
  // A place in the queue, and once granted the memory itself; given back when it is destroyed.
  class Claim {
   public:
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    bool isGranted() const;
    Deadline::Clock::time_point grantedAt() const;
    // Waits for the grant; false when the deadline, a limited one, passed or the process stops.
    bool await(const Deadline& deadline) const;

   private:
    friend class FrameBudget;
    Claim(FrameBudget& budget, std::size_t bytes, std::function<void()> granted)
        : budget_(budget), bytes_(bytes), granted_(std::move(granted)) {}
    FrameBudget& budget_;
    std::size_t bytes_;
    std::function<void()> granted_;
    bool isGranted_ = false;
    Deadline::Clock::time_point grantedAt_;
  };

  explicit FrameBudget(std::size_t bytes) : free_(bytes) {}

  // `granted` is called once when the claim is granted later than at once, on whichever thread gave the
  // memory back; it must not block, nor use the budget.
  std::unique_ptr<Claim> claim(std::size_t bytes, std::function<void()> granted);

  // Whether somebody waits.
  bool isContested() const;

  static FrameBudget& ofAccepted();
  static FrameBudget& ofCalling();

 private:
  void release(Claim& claim);
  void grant(Claim& claim);
  // Grants from the front of the queue as far as there is room. With the mutex held.
  void grantNext();

  mutable std::mutex mutex_;  // guards what follows, and isGranted_ of every claim
  std::size_t free_;
  std::list<Claim*> queue_;
};
