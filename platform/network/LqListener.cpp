// The accepting side's face: opens the port and hands the rest to the waiting room.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/connect_socket.h"
#include "platform/network/socket_address.h"
#include "platform/network/waiting_room.h"

namespace {

// The listening socket; -1 with errno set when the place cannot be had.
int listenOn(const SocketAddress& place) {
  const int descriptor = ::socket(place.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return descriptor;
  const int on = 1;
  ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  prepareSocket(descriptor);
  if (::bind(descriptor, place.get(), place.size) == 0 && ::listen(descriptor, SOMAXCONN) == 0)
    return descriptor;
  const int fault = errno;
  ::close(descriptor);
  errno = fault;
  return -1;
}

}  // namespace

LqListener::LqListener(KeyLookup lookup, const Limits& limits)
    : lookup_(std::move(lookup)), limits_(limits) {}

LqListener::~LqListener() {
  stop();
}

CWmError LqListener::open(const std::string& address, std::uint16_t port) {
  try {
    const std::string place = address + " port " + std::to_string(port);
    SocketAddress parsed;
    if (!parseAddress(address, port, parsed))
      return {kLqErrBadTarget, "cannot listen on " + place + ": not an address"};
    auto_handle listening(listenOn(parsed));
    if (!listening.isValid())
      return {kLqErrConnect, "cannot listen on " + place + ": " + std::generic_category().message(errno)};
    auto room = std::make_shared<WaitingRoom>(std::move(listening), std::make_shared<TlsPsk>(lookup_),
                                              limits_, place);
    room->start();
    room_ = std::move(room);
    return {};
  } catch (const std::exception& fault) {
    return {kLqErrConnect, "cannot listen on " + address + ": " + fault.what()};
  }
}

std::unique_ptr<CLqNetwork> LqListener::accept() {
  const std::shared_ptr<WaitingRoom> room = room_;  // stays while this call lasts
  return room != nullptr ? room->take() : nullptr;
}

void LqListener::await(std::unique_ptr<CLqNetwork> session) {
  if (room_ != nullptr) room_->await(std::move(session));
}

void LqListener::turnAway() {
  if (room_ != nullptr) room_->turnAway();
}

void LqListener::stop() {
  if (room_ != nullptr) room_->stop();
}

LqListener::Census LqListener::census() const {
  return room_ != nullptr ? room_->census() : Census();
}
