#include "platform/network/tls_connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <system_error>
#include <vector>

#include "platform/network/interruption.h"
#include "platform/network/socket_address.h"
#include "platform/network/socket_bio.h"

namespace {

// How soon a peer that vanished without a word is noticed: after idle + interval * probes = two minutes.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kKeepAliveProbes = 6;

constexpr int kNoSocket = -1;

std::atomic<std::chrono::milliseconds> silenceLimit{std::chrono::seconds(kSilenceLimitSeconds)};

void setOption(int descriptor, int level, int name, int value) {
  ::setsockopt(descriptor, level, name, &value, sizeof value);
}

std::string systemText(int fault) {
  return std::generic_category().message(fault);
}

// What a failed handshake means to people, from OpenSSL's error number.
std::string handshakeFault(unsigned long error, bool callingSide) {
  const char* detail = ERR_reason_error_string(error);
  const std::string reason = detail != nullptr ? detail : "unknown TLS fault";
  switch (ERR_GET_REASON(error)) {
    case SSL_R_SSLV3_ALERT_ILLEGAL_PARAMETER:
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_TLSV1_ALERT_DECRYPT_ERROR:
    case SSL_R_CERTIFICATE_VERIFY_FAILED:
      if (!callingSide) return "the caller did not accept this server (" + reason + ")";
      return "the session key of this machine is not the one the server knows; run \"lqhost join\" again (" +
             reason + ")";
    case SSL_R_BINDER_DOES_NOT_VERIFY:
      return "the caller's session key is not the one known for its identity (" + reason + ")";
    default:
      return "the other end does not speak this protocol (" + reason + ")";
  }
}

CWmError stopping() {
  return {kLqErrStopping, "this process is stopping"};
}

enum class Wait { kReady, kTimedOut, kSilent, kInterrupted };

// Milliseconds for poll(2), rounded up so that a wait never ends early and spins.
int pollTime(std::chrono::nanoseconds time) {
  const auto whole = std::chrono::ceil<std::chrono::milliseconds>(time).count();
  return static_cast<int>(std::clamp<decltype(whole)>(whole, 0, std::numeric_limits<int>::max()));
}

Wait waitFor(int descriptor, short events, const Deadline& deadline) {
  const auto begin = Deadline::Clock::now();
  for (;;) {
    const auto silence = begin + silenceLimit.load() - Deadline::Clock::now();
    const bool isDeadlineFirst = deadline.limited() && deadline.remaining() <= silence;
    const auto time = isDeadlineFirst ? deadline.remaining() : silence;
    pollfd watched[] = {{descriptor, events, 0}, {interruptionDescriptor(), POLLIN, 0}};
    const int ready = ::poll(watched, std::size(watched), isInterrupted() ? 0 : pollTime(time));
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category());
    // What can be done without waiting is done even when the process stops.
    if (ready > 0 && watched[0].revents != 0) return Wait::kReady;
    if (isInterrupted()) return Wait::kInterrupted;
    if (ready == 0) return isDeadlineFirst ? Wait::kTimedOut : Wait::kSilent;
  }
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
  if (::connect(descriptor, place.get(), place.size) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  if (waitFor(descriptor, POLLOUT, deadline) != Wait::kReady) return ETIMEDOUT;
  int fault = 0;
  socklen_t size = sizeof fault;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &fault, &size) == 0 ? fault : errno;
}

}  // namespace

void TlsConnection::prepareSocket(int descriptor) {
  setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
  setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
  setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
}

void TlsConnection::FreeTls::operator()(ssl_st* tls) const {
  SSL_free(tls);
}

TlsConnection::~TlsConnection() {
  closeSocket();
}

void TlsConnection::closeSocket() {
  if (descriptor_ != kNoSocket) ::close(descriptor_);
  descriptor_ = kNoSocket;
}

void TlsConnection::setSilenceLimit(std::chrono::milliseconds limit) {
  silenceLimit = limit;
}

std::chrono::milliseconds TlsConnection::silenceLimitNow() {
  return silenceLimit;
}

CWmError TlsConnection::connect(const Target& target, const Deadline& deadline) {
  std::string fault;
  const std::vector<SocketAddress> found = resolveHost(target.host, fault);
  if (found.empty()) return {kLqErrConnect, fault};

  const std::vector<SocketAddress> places = candidates(found, target);
  std::string reasons;
  bool isSilent = true;
  for (std::size_t i = 0; i < places.size(); ++i) {
    const int descriptor =
        ::socket(places[i].storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category());
    closeSocket();
    descriptor_ = descriptor;
    prepareSocket(descriptor_);
    const int problem = connectWithin(descriptor_, places[i], deadline.share(places.size() - i));
    if (problem == 0) {
      address_ = places[i].text();
      return {};
    }
    if (isInterrupted()) return stopping();
    isSilent = isSilent && problem == ETIMEDOUT;
    reasons += (reasons.empty() ? "" : "; ") + places[i].text() + ": " +
               (problem == ETIMEDOUT ? "no answer" : systemText(problem));
  }
  return {isSilent ? kLqErrTimeout : kLqErrConnect, reasons};
}

void TlsConnection::adopt(int descriptor, std::string address) {
  closeSocket();
  descriptor_ = descriptor;
  accepted_ = true;
  address_ = std::move(address);
}

ssl_st& TlsConnection::tls() {
  if (tls_ != nullptr) return *tls_;
  tls_.reset(psk_->newConnection(identity_));
  BIO* const socket = newSocketBio(descriptor_);
  SSL_set_bio(tls_.get(), socket, socket);
  if (accepted_) {
    SSL_set_accept_state(tls_.get());
  } else {
    SSL_set_connect_state(tls_.get());
  }
  return *tls_;
}

CWmError TlsConnection::outcome(int result, Waiting& waiting) {
  const int fault = errno;
  switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      waiting = Waiting::kReadable;
      return {};
    case SSL_ERROR_WANT_WRITE:
      waiting = Waiting::kWritable;
      return {};
    case SSL_ERROR_ZERO_RETURN:
      return {kLqErrConnectionLost, "the peer closed the connection"};
    case SSL_ERROR_SYSCALL:
      return {kLqErrConnectionLost, fault == 0 ? "the peer closed the connection" : systemText(fault)};
    default:
      break;
  }
  const unsigned long error = ERR_peek_error();
  if (ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
    return {kLqErrConnectionLost, "the peer closed the connection"};
  if (!established_) return {kLqErrHandshake, handshakeFault(error, !accepted_)};
  const char* const detail = ERR_reason_error_string(error);
  return {kLqErrProtocol, std::string("TLS fault: ") + (detail != nullptr ? detail : "unknown")};
}

CWmError TlsConnection::tryHandshake(Waiting& waiting) {
  waiting = Waiting::kNothing;
  ssl_st& connection = tls();
  ERR_clear_error();
  errno = 0;
  const int result = SSL_do_handshake(&connection);
  if (result != 1) return outcome(result, waiting);
  if (!usedSharedKey(&connection))
    return {kLqErrHandshake, "the other end did not prove that it holds the session key"};
  established_ = true;
  return {};
}

CWmError TlsConnection::handshake(const Deadline& deadline) {
  for (;;) {
    Waiting waiting{};
    CWmError error = tryHandshake(waiting);
    if (error.IsError() || waiting == Waiting::kNothing) return error;
    error = await(waiting, deadline);
    if (error.IsError()) return error;
  }
}

CWmError TlsConnection::tryRead(char* data, std::size_t size, std::size_t& got, Waiting& waiting) {
  got = 0;
  waiting = Waiting::kNothing;
  ERR_clear_error();
  errno = 0;
  const int result = SSL_read_ex(&tls(), data, size, &got);
  return result == 1 ? CWmError() : outcome(result, waiting);
}

CWmError TlsConnection::writeAll(std::string_view bytes, const Deadline& deadline) {
  while (!bytes.empty()) {
    std::size_t written = 0;
    ERR_clear_error();
    errno = 0;
    const int result = SSL_write_ex(&tls(), bytes.data(), bytes.size(), &written);
    if (result == 1) {
      bytes.remove_prefix(written);
      continue;
    }
    Waiting waiting{};
    CWmError error = outcome(result, waiting);
    if (!error.IsError()) error = await(waiting, deadline);
    if (error.IsError()) return error;
  }
  return {};
}

CWmError TlsConnection::write(std::string_view first, std::string_view second, const Deadline& deadline) {
  CWmError error = writeAll(first, deadline);
  return error.IsError() ? error : writeAll(second, deadline);
}

CWmError TlsConnection::await(Waiting waiting, const Deadline& deadline) const {
  if (waiting == Waiting::kMore) return {};
  switch (waitFor(descriptor_, waiting == Waiting::kWritable ? POLLOUT : POLLIN, deadline)) {
    case Wait::kReady:
      return {};
    case Wait::kInterrupted:
      return stopping();
    case Wait::kSilent:
      return {kLqErrConnectionLost, "not a byte has moved for as long as a session may be silent"};
    case Wait::kTimedOut:
      break;
  }
  return {kLqErrTimeout, "the time given has passed"};
}

void TlsConnection::shutdown() {
  if (established_) {
    ERR_clear_error();
    SSL_shutdown(tls_.get());
  }
  closeSocket();
}

bool TlsConnection::closedByPeer() const {
  char byte = 0;
  const ssize_t peeked = ::recv(descriptor_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked < 0 && errno != EAGAIN && errno != EINTR);
}
