#include "platform/network/silence_limit.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <limits>
#include <system_error>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/interruption.h"

namespace {

std::atomic<std::chrono::milliseconds> silenceLimit{std::chrono::seconds(kSilenceLimitSeconds)};

// Milliseconds for poll(2), rounded up so that a wait never ends early and spins.
int pollTime(std::chrono::nanoseconds time) {
  const auto whole = std::chrono::ceil<std::chrono::milliseconds>(time).count();
  return static_cast<int>(std::clamp<decltype(whole)>(whole, 0, std::numeric_limits<int>::max()));
}

}  // namespace

void setSilenceLimit(std::chrono::milliseconds limit) {
  silenceLimit = limit;
}

std::chrono::milliseconds silenceLimitNow() {
  return silenceLimit;
}

CWmError awaitSocket(int descriptor, short events, const Deadline& deadline) {
  const auto begin = Deadline::Clock::now();
  for (;;) {
    const auto silence = begin + silenceLimit.load() - Deadline::Clock::now();
    const bool isDeadlineFirst = deadline.limited() && deadline.remaining() <= silence;
    const auto time = isDeadlineFirst ? deadline.remaining() : silence;
    pollfd watched[] = {{descriptor, events, 0}, {interruptionDescriptor(), POLLIN, 0}};
    const int ready = ::poll(watched, std::size(watched), isInterrupted() ? 0 : pollTime(time));
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category());
    // What can be done without waiting is done even when the process stops.
    if (ready > 0 && watched[0].revents != 0) return {};
    if (isInterrupted()) return stopping();
    if (ready != 0) continue;
    if (isDeadlineFirst) return {kLqErrTimeout, "the time given has passed"};
    return {kLqErrConnectionLost, "not a byte has moved for as long as a session may be silent"};
  }
}
