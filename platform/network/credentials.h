// What a machine proves itself with: its identity and the session key that it shares with the server.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"

struct Credentials {
  Credentials() = default;
  ~Credentials();  // wipes the key
  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  // In a time that does not tell how much of the keys is alike.
  bool equals(const Credentials& other) const;

  std::string identity;
  std::string key;  // kSessionKeyBytes bytes
};

// Longest identity that is sent or looked up.
inline constexpr std::size_t kMaxIdentityBytes = 256;

// Reads this machine's credentials for the current instance; kLqErrNoCredentials when it has none.
CWmError readCredentials(Credentials& credentials);
