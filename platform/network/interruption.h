// Ending every network wait of the process at once, when it stops.
#pragma once

#include <functional>

// Registers something that waits, for its lifetime; `wake` makes the wait return early. It is called from
// another thread, at most while the object lives.
class Interruptible {
 public:
  explicit Interruptible(std::function<void()> wake);
  ~Interruptible();
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

 private:
  std::function<void()> wake_;
  friend void interruptAll();
};

// From now on, waits are not begun and those under way end.
void interruptAll();
bool isInterrupted();
