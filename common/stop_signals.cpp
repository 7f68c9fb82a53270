#include "common/stop_signals.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>

namespace programs {

StopSignals::StopSignals() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGTERM);
  sigaddset(&signals_, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int StopSignals::wait() const {
  int signal = 0;
  while (sigwait(&signals_, &signal) != 0) {
  }
  return signal;
}

int StopSignals::waitFor(std::chrono::milliseconds time) const {
  using namespace std::chrono;
  const auto end = steady_clock::now() + time;
  for (;;) {
    const auto left = std::max(duration_cast<nanoseconds>(end - steady_clock::now()), nanoseconds(0));
    const auto whole = duration_cast<seconds>(left);
    timespec limit{};
    limit.tv_sec = whole.count();
    limit.tv_nsec = (left - whole).count();
    const int signal = sigtimedwait(&signals_, nullptr, &limit);
    if (signal > 0) return signal;
    if (errno != EINTR) return 0;
  }
}

}  // namespace programs
