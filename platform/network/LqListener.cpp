// The accepting side's socket. accept() blocks in the kernel; stop() wakes it by shutting the listening
// socket down, which also turns new callers away at once.

#include <fcntl.h>
#include <sys/socket.h>

#include "platform/network/asio_config.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/ObDebug.h"
#include "platform/network/network_impl.h"

using asio::error_code;
using asio::ip::tcp;

namespace {

// How long accept() rests when the system has no room for a caller (descriptors, memory).
constexpr std::chrono::milliseconds kShortageRest{100};

constexpr int kNoSocket = -1;

error_code listenOn(tcp::acceptor& acceptor, const tcp::endpoint& endpoint) {
  error_code fault;
  acceptor.open(endpoint.protocol(), fault);
  if (!fault) ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
  if (!fault) acceptor.set_option(tcp::acceptor::reuse_address(true), fault);
  if (!fault) acceptor.bind(endpoint, fault);
  if (!fault) acceptor.listen(asio::socket_base::max_listen_connections, fault);
  return fault;
}

}  // namespace

struct LqListener::Impl {
  CWmError open(const std::string& address, std::uint16_t port);
  // Null, with the reason in `fault`, when no caller could be taken.
  std::unique_ptr<CLqNetwork> acceptOne(int& fault);
  // Waits before the next try after a failed one, and says why once per series of failures.
  void rest(const char* reason);

  std::shared_ptr<const TlsPsk> psk;
  KeyLookup lookup;
  asio::io_context io{1};
  tcp::acceptor acceptor{io};
  std::string place;        // "<address> port <port>", for texts
  bool inShortage = false;  // of the accepting thread alone

  std::mutex mutex;  // guards what follows
  std::condition_variable woken;
  int descriptor = kNoSocket;
  bool stopped = false;
};

CWmError LqListener::Impl::open(const std::string& address, std::uint16_t port) {
  place = address + " port " + std::to_string(port);
  error_code fault;
  const auto parsed = asio::ip::make_address(address, fault);
  if (fault) return {kLqErrBadTarget, "cannot listen on " + place + ": not an address"};
  psk = std::make_shared<TlsPsk>(lookup);
  fault = listenOn(acceptor, {parsed, port});
  if (fault) {
    error_code ignored;
    acceptor.close(ignored);
    return {kLqErrConnect, "cannot listen on " + place + ": " + fault.message()};
  }
  const std::lock_guard<std::mutex> lock(mutex);
  descriptor = acceptor.native_handle();
  if (stopped) ::shutdown(descriptor, SHUT_RDWR);
  return {};
}

std::unique_ptr<CLqNetwork> LqListener::Impl::acceptOne(int& fault) {
  // Everything that a session needs is had before a caller is taken, so that a shortage costs no caller.
  auto session = std::make_unique<CLqNetwork>();
  auto frames = std::make_unique<FrameStream>(psk);
  tcp::endpoint from;
  auto size = static_cast<socklen_t>(from.capacity());
  const int caller = ::accept4(descriptor, from.data(), &size, SOCK_CLOEXEC);
  if (caller < 0) {
    fault = errno;
    return nullptr;
  }
  frames->connection().adopt(caller);
  session->impl_->peerAddress = from.address().to_string();
  session->impl_->peerText = frames->connection().address();
  session->impl_->frames = std::move(frames);
  session->impl_->state = CLqNetwork::Impl::State::kAccepted;
  inShortage = false;
  return session;
}

void LqListener::Impl::rest(const char* reason) {
  std::unique_lock<std::mutex> lock(mutex);
  if (stopped) return;
  if (!inShortage)
    ObEvent().Error("LqListener::accept", "cannot take callers on %s now: %s", place.c_str(), reason);
  inShortage = true;
  woken.wait_for(lock, kShortageRest, [this] { return stopped; });
}

LqListener::LqListener(KeyLookup lookup) : impl_(std::make_shared<Impl>()) {
  impl_->lookup = std::move(lookup);
}

LqListener::~LqListener() {
  stop();
}

CWmError LqListener::open(const std::string& address, std::uint16_t port) {
  try {
    return impl_->open(address, port);
  } catch (const std::exception& fault) {
    return {kLqErrConnect, "cannot listen on " + address + ": " + fault.what()};
  }
}

std::unique_ptr<CLqNetwork> LqListener::accept() {
  const std::shared_ptr<Impl> impl = impl_;  // stays while this call lasts
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(impl->mutex);
      if (impl->stopped || impl->descriptor == kNoSocket) return nullptr;
    }
    try {
      int fault = 0;
      if (auto session = impl->acceptOne(fault)) return session;
      if (fault != ECONNABORTED && fault != EINTR) impl->rest(std::generic_category().message(fault).c_str());
    } catch (const std::exception& shortage) {
      impl->rest(shortage.what());
    }
  }
}

void LqListener::stop() {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->stopped = true;
  if (impl_->descriptor != kNoSocket) ::shutdown(impl_->descriptor, SHUT_RDWR);
  impl_->woken.notify_all();
}
