// One TCP connection with TLS on it: connect or adopt, handshake, exact reads and writes.
//
// It is a non-blocking socket and a TLS state, bound to no thread: whoever holds it may go on with it, one
// thread at a time. Each step comes in two forms: one that does what it can without waiting and says what it
// waits for, and one that waits as silence_limit.h has it. Steps give kLqErrTimeout,
// kLqErrConnectionLost or a code of their own, with the bare reason as text; memory and descriptor shortage
// are thrown as std::exception for the session to catch.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "lqregistry/CWmError.h"
#include "platform/network/deadline.h"
#include "platform/network/target.h"
#include "platform/network/tls_psk.h"

// What a step that was begun waits for. Steps get it as kNothing, and leave it so when they are done.
enum class Waiting {
  kNothing,   // it is done, or has failed
  kReadable,  // bytes from the peer
  kWritable,  // room in the socket
  kMore,      // nothing: it only lets others have their turn
  kTurn,      // memory for a frame (frame_budget.h)
};

class TlsConnection {
 public:
  explicit TlsConnection(std::shared_ptr<const TlsPsk> psk) : psk_(std::move(psk)) {}
  ~TlsConnection();  // closes, without a word to the peer
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  // As connectSocket() does.
  CWmError connect(const Target& target, const Deadline& deadline);

  // Takes over an accepted, non-blocking socket and the text of where it came from. Until the first byte
  // comes, it costs no TLS state. Its options are those of the listening socket, which accepted ones inherit.
  void adopt(int descriptor, std::string address);

  CWmError handshake(const Deadline& deadline);
  CWmError tryHandshake(Waiting& waiting);

  // Reads some of `size` bytes; `got` tells how many came, which is 0 only when the caller has to wait.
  CWmError tryRead(char* data, std::size_t size, std::size_t& got, Waiting& waiting);

  // Writes both parts, one after the other.
  CWmError write(std::string_view first, std::string_view second, const Deadline& deadline);

  // Waits until a step that said `waiting` can go on.
  CWmError await(Waiting waiting, const Deadline& deadline) const;

  // Tells the peer that nothing more comes, as far as that is possible without waiting, and closes.
  void shutdown();

  // Looks, without waiting, whether the peer has closed the connection.
  bool closedByPeer() const;

  int descriptor() const { return descriptor_; }
  // The caller's identity, after the handshake of the accepting side.
  const std::string& identity() const { return identity_; }
  // Address and port of the peer, for texts.
  const std::string& address() const { return address_; }

 private:
  struct FreeTls {
    void operator()(ssl_st* tls) const;
  };

  // Made at first use; for each call of the TLS library whose result outcome() is asked about.
  ssl_st& tls();
  void closeSocket();
  // What a TLS operation that did not succeed has come to.
  CWmError outcome(int result, Waiting& waiting);
  CWmError writeAll(std::string_view bytes, const Deadline& deadline);

  std::shared_ptr<const TlsPsk> psk_;
  std::string identity_;
  std::string address_;
  int descriptor_ = -1;
  bool accepted_ = false;
  bool established_ = false;
  std::unique_ptr<ssl_st, FreeTls> tls_;
};
