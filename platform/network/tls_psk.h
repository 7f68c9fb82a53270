// TLS 1.3 with an external pre-shared key, and nothing else: no certificates, no tickets, no resumption.
//
// The key authenticates both ends: a handshake in which either side does not hold the key fails. A TlsPsk is
// the configuration of one side; it may serve any number of connections, from any thread, and outlives them.
#pragma once

#include <memory>
#include <string>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/credentials.h"

struct ssl_ctx_st;
struct ssl_st;

class TlsPsk {
 public:
  // The calling side. Takes the identity and key out of `credentials`.
  explicit TlsPsk(Credentials& credentials);
  // The same, made once for as long as the process calls with the same credentials. The last one is kept; one
  // whose key was replaced goes, and is wiped, with its last connection.
  static std::shared_ptr<const TlsPsk> ofCaller(Credentials& credentials);
  // The accepting side.
  explicit TlsPsk(LqListener::KeyLookup lookup);
  ~TlsPsk();
  TlsPsk(const TlsPsk&) = delete;
  TlsPsk& operator=(const TlsPsk&) = delete;

  // The TLS state of a new connection; the caller frees it. `identity` gets the caller's identity during the
  // handshake of the accepting side and must live as long as the connection.
  ssl_st* newConnection(std::string& identity) const;

  // The key of an identity that a caller named. For an unknown identity a random key, with which the
  // handshake fails exactly as it does with a wrong one.
  std::string keyOf(const std::string& identity) const;
  const Credentials& credentials() const { return credentials_; }

 private:
  void configure();

  Credentials credentials_;
  LqListener::KeyLookup lookup_;
  ssl_ctx_st* context_ = nullptr;
};

// Whether the completed handshake was authenticated by the shared key.
bool usedSharedKey(const ssl_st* connection);
