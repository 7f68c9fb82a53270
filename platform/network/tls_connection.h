// One TCP connection with TLS on it: connect or adopt, handshake, exact reads and writes against a deadline.
//
// The only place that knows how asynchronous operations are run and timed out. Used by one thread at a time.
// Steps give kLqErrTimeout, kLqErrConnectionLost or a code of their own, with the bare reason as text; memory
// and descriptor shortage are thrown as std::exception for the session to catch.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "lqregistry/CWmError.h"
#include "platform/network/deadline.h"
#include "platform/network/target.h"
#include "platform/network/tls_psk.h"

class TlsConnection {
 public:
  explicit TlsConnection(std::shared_ptr<const TlsPsk> psk);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  // Connects to the target's first port or, when nobody can be reached there, its second.
  CWmError connect(const Target& target, const Deadline& deadline);

  // Takes over an accepted socket; it is closed when that fails.
  void adopt(int descriptor);

  CWmError handshake(const Deadline& deadline);

  // Reads exactly `size` bytes; `got` tells how many came before an error.
  CWmError read(char* data, std::size_t size, std::size_t& got, const Deadline& deadline);

  // Writes both parts, one after the other.
  CWmError write(std::string_view first, std::string_view second, const Deadline& deadline);

  // Tells the peer that nothing more comes, as far as that is possible without waiting, and closes.
  void shutdown();

  // Looks, without waiting, whether the peer has closed the connection.
  bool closedByPeer() const;

  // The caller's identity, after the handshake of the accepting side.
  const std::string& identity() const;
  // Address and port of the peer, for texts.
  const std::string& address() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
