#include "platform/network/tls_connection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/network/connect_socket.h"
#include "platform/network/silence_limit.h"
#include "platform/network/socket_bio.h"

namespace {

constexpr int kNoSocket = -1;

// What OpenSSL says of its error.
std::string reasonOf(unsigned long error) {
  const char* const reason = ERR_reason_error_string(error);
  return reason != nullptr ? reason : "unknown";
}

// What a failed handshake means to people, from OpenSSL's error number.
std::string handshakeFault(unsigned long error, bool callingSide) {
  const std::string reason = reasonOf(error);
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

}  // namespace

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

CWmError TlsConnection::connect(const Target& target, const Deadline& deadline) {
  closeSocket();
  return connectSocket(target, deadline, descriptor_, address_);
}

void TlsConnection::adopt(int descriptor, std::string address) {
  closeSocket();
  descriptor_ = descriptor;
  accepted_ = true;
  address_ = std::move(address);
}

ssl_st& TlsConnection::tls() {
  // What another connection has left in this thread's queue would be taken for a fault of this one.
  ERR_clear_error();
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
      return {kLqErrConnectionLost, std::generic_category().message(fault)};
    default:
      break;
  }
  const unsigned long error = ERR_peek_error();
  if (ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
    return {kLqErrConnectionLost, "the peer closed the connection"};
  if (!established_) return {kLqErrHandshake, handshakeFault(error, !accepted_)};
  return {kLqErrProtocol, "TLS fault: " + reasonOf(error)};
}

CWmError TlsConnection::tryHandshake(Waiting& waiting) {
  const int result = SSL_do_handshake(&tls());
  if (result != 1) return outcome(result, waiting);
  if (!usedSharedKey(tls_.get()))
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
  const int result = SSL_read_ex(&tls(), data, size, &got);
  return result == 1 ? CWmError() : outcome(result, waiting);
}

CWmError TlsConnection::writeAll(std::string_view bytes, const Deadline& deadline) {
  while (!bytes.empty()) {
    std::size_t written = 0;
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
  return awaitSocket(descriptor_, waiting == Waiting::kWritable ? POLLOUT : POLLIN, deadline);
}

void TlsConnection::shutdown() {
  if (established_) SSL_shutdown(tls_.get());
  closeSocket();
}

bool TlsConnection::closedByPeer() const {
  char byte = 0;
  const ssize_t peeked = ::recv(descriptor_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked == 0 || (peeked < 0 && errno != EAGAIN && errno != EINTR);
}
