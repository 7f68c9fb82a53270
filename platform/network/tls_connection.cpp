#include "platform/network/tls_connection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/network/asio_config.h"

#include <array>
#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/ssl/error.hpp>
#include <asio/ssl/stream.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <system_error>
#include <vector>

#include "platform/network/interruption.h"

using asio::error_code;
using asio::ip::tcp;

namespace {

// How soon a peer that vanished without a word is noticed: after idle + interval * probes = two minutes.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kKeepAliveProbes = 6;

void setOption(int descriptor, int level, int name, int value) {
  ::setsockopt(descriptor, level, name, &value, sizeof value);
}

void prepareSocket(int descriptor) {
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
  setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
}

std::string textOf(const tcp::endpoint& endpoint) {
  return endpoint.address().to_string() + " port " + std::to_string(endpoint.port());
}

bool isTlsFault(const error_code& fault) {
  return fault.category() == asio::error::get_ssl_category();
}

// A fault of an established connection.
CWmError connectionFault(const error_code& fault) {
  if (isTlsFault(fault)) return {kLqErrProtocol, "TLS fault: " + fault.message()};
  if (fault == asio::error::eof || fault == asio::ssl::error::stream_truncated)
    return {kLqErrConnectionLost, "the peer closed the connection"};
  return {kLqErrConnectionLost, fault.message()};
}

// A wait that ended before what it waited for came.
CWmError endedWait(const char* text = "the time given has passed") {
  if (isInterrupted()) return {kLqErrStopping, "this process is stopping"};
  return {kLqErrTimeout, text};
}

// The addresses to try, in order: every address of the host on the first port, then on the second.
std::vector<tcp::endpoint> candidates(const tcp::resolver::results_type& found, const Target& target) {
  std::vector<tcp::endpoint> list;
  for (const std::uint16_t port : target.ports) {
    for (const auto& entry : found) list.emplace_back(entry.endpoint().address(), port);
    if (target.ports[0] == target.ports[1]) break;
  }
  return list;
}

}  // namespace

struct TlsConnection::Impl {
  enum class Outcome { kDone, kTimedOut };

  explicit Impl(std::shared_ptr<const TlsPsk> configuration)
      : psk(std::move(configuration)), stream(socket, psk->newConnection(identity)) {}

  // Starts an operation, runs it to its end and gives its result; past the deadline it is cancelled. What it
  // did reaches the caller through `fault` and whatever else its handler stores.
  template <class Start>
  Outcome run(const Deadline& deadline, error_code& fault, Start start) {
    bool done = false;
    io.restart();
    start([&done, &fault](const error_code& result, auto&&...) {
      fault = result;
      done = true;
    });
    if (isInterrupted()) {
      io.poll();  // what can be done without waiting is done all the same
    } else if (deadline.limited()) {
      io.run_for(deadline.remaining());
    } else {
      io.run();
    }
    if (done) return Outcome::kDone;
    // An operation of several parts may begin its next part after one cancel, hence the loop.
    while (!done) {
      error_code ignored;
      socket.cancel(ignored);
      io.restart();
      io.poll();
    }
    return fault == asio::error::operation_aborted ? Outcome::kTimedOut : Outcome::kDone;
  }

  asio::io_context io{1};
  tcp::socket socket{io};
  std::shared_ptr<const TlsPsk> psk;
  std::string identity;
  std::string address;
  bool accepted = false;
  asio::ssl::stream<tcp::socket&> stream;
  Interruptible interruptible{[this] { io.stop(); }};
};

TlsConnection::TlsConnection(std::shared_ptr<const TlsPsk> psk)
    : impl_(std::make_unique<Impl>(std::move(psk))) {}

TlsConnection::~TlsConnection() = default;

CWmError TlsConnection::connect(const Target& target, const Deadline& deadline) {
  error_code fault;
  const auto found = tcp::resolver(impl_->io).resolve(target.host, "", fault);
  if (fault) return {kLqErrConnect, fault.message()};

  const std::vector<tcp::endpoint> endpoints = candidates(found, target);
  std::string reasons;
  bool timedOut = true;
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    const auto outcome = impl_->run(deadline.share(endpoints.size() - i), fault, [&](auto handler) {
      error_code problem;
      impl_->socket.close(problem);
      impl_->socket.open(endpoints[i].protocol(), problem);
      if (problem) return handler(problem);
      prepareSocket(impl_->socket.native_handle());
      impl_->socket.async_connect(endpoints[i], handler);
    });
    if (outcome == Impl::Outcome::kDone && !fault) {
      impl_->address = textOf(endpoints[i]);
      return {};
    }
    timedOut = timedOut && outcome == Impl::Outcome::kTimedOut;
    reasons += (reasons.empty() ? "" : "; ") + textOf(endpoints[i]) + ": " +
               (outcome == Impl::Outcome::kTimedOut ? "no answer" : fault.message());
  }
  return timedOut ? endedWait(reasons.c_str()) : CWmError(kLqErrConnect, reasons);
}

void TlsConnection::adopt(int descriptor) {
  sockaddr_storage local{};
  socklen_t size = sizeof local;
  ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &size);
  error_code fault;
  impl_->socket.assign(local.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), descriptor, fault);
  if (fault) {
    ::close(descriptor);
    throw std::system_error(fault);
  }
  prepareSocket(descriptor);
  impl_->accepted = true;
  impl_->address = textOf(impl_->socket.remote_endpoint(fault));
}

CWmError TlsConnection::handshake(const Deadline& deadline) {
  const auto side = impl_->accepted ? asio::ssl::stream_base::server : asio::ssl::stream_base::client;
  error_code fault;
  const auto outcome =
      impl_->run(deadline, fault, [&](auto handler) { impl_->stream.async_handshake(side, handler); });
  if (outcome == Impl::Outcome::kTimedOut) return endedWait();
  if (isTlsFault(fault))
    return {kLqErrHandshake, handshakeFault(static_cast<unsigned long>(fault.value()), !impl_->accepted)};
  if (fault) return connectionFault(fault);
  if (!usedSharedKey(impl_->stream.native_handle()))
    return {kLqErrHandshake, "the other end did not prove that it holds the session key"};
  return {};
}

CWmError TlsConnection::read(char* data, std::size_t size, std::size_t& got, const Deadline& deadline) {
  got = 0;
  error_code fault;
  const auto outcome = impl_->run(deadline, fault, [&](auto handler) {
    asio::async_read(impl_->stream, asio::buffer(data, size),
                     [&got, handler](const error_code& result, std::size_t bytes) mutable {
                       got = bytes;
                       handler(result);
                     });
  });
  if (outcome == Impl::Outcome::kTimedOut) return endedWait();
  return fault ? connectionFault(fault) : CWmError();
}

CWmError TlsConnection::write(std::string_view first, std::string_view second, const Deadline& deadline) {
  const std::array<asio::const_buffer, 2> parts{asio::buffer(first), asio::buffer(second)};
  error_code fault;
  const auto outcome =
      impl_->run(deadline, fault, [&](auto handler) { asio::async_write(impl_->stream, parts, handler); });
  if (outcome == Impl::Outcome::kTimedOut) return endedWait();
  return fault ? connectionFault(fault) : CWmError();
}

void TlsConnection::shutdown() {
  error_code ignored;
  impl_->run(Deadline::in(0), ignored, [&](auto handler) { impl_->stream.async_shutdown(handler); });
  impl_->socket.close(ignored);
}

bool TlsConnection::closedByPeer() const {
  char byte = 0;
  const ssize_t peeked = ::recv(impl_->socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked < 0 && errno != EAGAIN && errno != EINTR);
}

const std::string& TlsConnection::identity() const {
  return impl_->identity;
}

const std::string& TlsConnection::address() const {
  return impl_->address;
}
