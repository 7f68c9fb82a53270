#include "lqhost/service/command_protocol.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "lqhost/instance.h"

namespace host {

namespace {

using std::chrono::milliseconds;

// How long an answer may still take to be read when the resident stops.
constexpr std::chrono::seconds kLastWords{1};
constexpr std::size_t kMaxLine = 128;

constexpr int pollTime(milliseconds time) {
  return static_cast<int>(time.count());
}

}  // namespace

auto_handle openBase() {
  return auto_handle(::open(baseDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

sockaddr_un addressIn(const auto_handle& directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + kCommandSocket;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

const sockaddr* asAddress(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

bool sendAll(int connection, int stop, const std::string& text) {
  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + kPatience;
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t now =
        ::send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (now > 0) {
      sent += static_cast<std::size_t>(now);
      continue;
    }
    if (now == 0 || (errno != EINTR && errno != EAGAIN)) return false;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    pollfd both[] = {{connection, POLLOUT, 0}, {stop, POLLIN, 0}};
    if (left.count() <= 0 || ::poll(both, 2, pollTime(left)) == 0) return false;
    if (both[1].revents != 0) {
      deadline = std::min(deadline, Clock::now() + kLastWords);
      stop = -1;
    }
  }
  return true;
}

bool waitToRead(int connection, int stop, milliseconds time) {
  pollfd both[] = {{connection, POLLIN, 0}, {stop, POLLIN, 0}};
  int ready = 0;
  do {
    ready = ::poll(both, 2, pollTime(time));
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && both[0].revents != 0 && both[1].revents == 0;
}

std::optional<std::string> readLine(int connection, int stop, milliseconds time) {
  std::string line;
  for (char next = 0; line.size() < kMaxLine && waitToRead(connection, stop, time);) {
    if (::recv(connection, &next, 1, 0) != 1) break;
    if (next == '\n') return line;
    line += next;
  }
  return std::nullopt;
}

}  // namespace host
