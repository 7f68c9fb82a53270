#include "platform/network/connect_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <span>
#include <system_error>
#include <vector>

#include "lqregistry/FXFile.h"
#include "platform/network/interruption.h"
#include "platform/network/silence_limit.h"
#include "platform/network/socket_address.h"

namespace {

// How soon a peer that vanished without a word is noticed: after idle + interval * probes = two minutes.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kKeepAliveProbes = 6;

void setOption(int descriptor, int level, int name, int value) {
  ::setsockopt(descriptor, level, name, &value, sizeof value);
}

// The addresses to try, in order: every address of the host on the first port, then on the second.
std::vector<SocketAddress> candidates(const std::vector<SocketAddress>& found, const Target& target) {
  std::vector<SocketAddress> list;
  for (const std::uint16_t port : target.ports) {
    for (SocketAddress address : found) {
      address.setPort(port);
      list.push_back(address);
    }
    if (target.ports[0] == target.ports[1]) break;
  }
  return list;
}

// Connects within the deadline: the fault's number, ETIMEDOUT when it passed without an answer.
int connectWithin(int descriptor, const SocketAddress& place, const Deadline& deadline) {
  prepareSocket(descriptor);
  if (::connect(descriptor, place.get(), place.size) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  if (awaitSocket(descriptor, POLLOUT, deadline).IsError()) return ETIMEDOUT;
  int fault = 0;
  socklen_t size = sizeof fault;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &fault, &size) == 0 ? fault : errno;
}

}  // namespace

void prepareSocket(int descriptor) {
  setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
  setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
}

CWmError connectSocket(const Target& target, const Deadline& deadline, int& descriptor,
                       std::string& address) {
  std::string fault;
  const std::vector<SocketAddress> found = resolveHost(target.host, fault);
  if (found.empty()) return {kLqErrConnect, fault};

  const std::vector<SocketAddress> places = candidates(found, target);
  std::string reasons;
  for (std::span left(places); !left.empty(); left = left.subspan(1)) {
    const SocketAddress& place = left.front();
    auto_handle opened(::socket(place.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // That this machine lacks the family of one address does not speak against the next one.
    const int problem =
        opened.isValid() ? connectWithin(opened.get(), place, deadline.share(left.size())) : errno;
    if (problem == 0) {
      descriptor = opened.release();
      address = place.text();
      return {};
    }
    if (isInterrupted()) return stopping();
    reasons += (reasons.empty() ? "" : "; ") + place.text() + ": " +
               (problem == ETIMEDOUT ? "no answer" : std::generic_category().message(problem));
  }
  return {kLqErrConnect, reasons};
}
