// pstring: a protected string, for values that must not be readable at rest.
//
// Holds the secret in memory only, never prints it, and wipes it when it is destroyed or replaced. At rest a
// secret stands as its V8 text: "V8:" and the base64 of the secret encrypted with AES-256-SIV under this
// machine's protection key. The encryption is deterministic, so the same secret gives the same text on this
// machine each time, which is what lets a synchronisation see that a protected value did not change.
//
// The protection key is 64 random bytes in a file of mode 0600, created at its first use; UseKeyFile names
// it. Objects are values, used by one thread at a time. A real platform library provides a password class
// with getV8Password; which text it gives is its own business.
#pragma once

#include <string>
#include <string_view>

#include "lqregistry/LqExport.h"

class LQ_EXPORT pstring {
 public:
  pstring() = default;
  explicit pstring(std::string_view secret);
  ~pstring();
  pstring(const pstring& other);
  pstring(pstring&& other) noexcept;
  pstring& operator=(const pstring& other);
  pstring& operator=(pstring&& other) noexcept;

  bool empty() const { return secret_.empty(); }
  bool operator==(const pstring& other) const { return secret_ == other.secret_; }

  // The text that is stored for this secret; empty for an empty secret, and, with an error line, when the
  // protection key cannot be had.
  std::string getV8Password() const;

  // The secret from its V8 text. False, with `out` unchanged, when the text was not made with this machine's
  // protection key or was altered.
  static bool fromV8Password(std::string_view text, pstring& out);

  // The secret itself, for the encrypted session and for the module that needs it in clear. The view is valid
  // as long as this object is unchanged; what is copied from it is the caller's to wipe.
  std::string_view reveal() const { return secret_; }

  // Names the key file of this process, before its first use; without it, it is the registry file's path with
  // ".key" appended.
  static void UseKeyFile(const std::string& path);

 private:
  void wipe();
  std::string secret_;
};
