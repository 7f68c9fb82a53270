// The signals that ask a resident program to stop, taken in order instead of by surprise.
//
// Made on the main thread before any other thread starts: from then on SIGTERM and SIGINT interrupt nobody
// and are waited for here. A pipe that nobody reads any more is an error of the write, not the program's end.
#pragma once

#include <chrono>
#include <csignal>

namespace programs {

class StopSignals {
 public:
  StopSignals();

  // Waits until the program is asked to stop; the signal's number.
  int wait() const;

  // The same, at most for `time`; 0 when it has passed.
  int waitFor(std::chrono::milliseconds time) const;

 private:
  sigset_t signals_;
};

}  // namespace programs
