// pstring: a protected string, for values that must not be readable at rest.
//
// Holds the secret in memory only, never prints it, and wipes it when it is destroyed or replaced. At rest a
// secret stands as its V8 text: "V8:" and the base64 of the secret encrypted with AES-256-SIV under this
// machine's protection key. The encryption is deterministic, so the same secret gives the same text on this
// machine each time, which is what lets a synchronisation see that a protected value did not change.
//
// The protection key is 64 random bytes in a file of mode 0600 beside the registry file, named like that with
// ".key" appended. It is made together with the registry and never again: a key that is missing, that belongs
// to another registry, or that others may read is an error, and nothing is protected or revealed until the
// right one is back. The registry keeps a fingerprint of its key. UseKeyFile names another file, for programs
// that keep their own store.
//
// Objects are values, used by one thread at a time; the static functions may be called from any thread. A
// real platform library provides a password class with getV8Password; which text that returns is up to it.
#pragma once

#include <string>
#include <string_view>

#include "lqregistry/CWmError.h"
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

  bool empty() const { return secret_.empty() && sealed_.empty(); }
  bool operator==(const pstring& other) const { return secret_ == other.secret_ && sealed_ == other.sealed_; }

  // Whether this is a stored text that could not be opened. It is kept as it came, so that it is not lost
  // where it is only passed on, and comes to light again when the right key is back.
  bool isUnreadable() const { return !sealed_.empty(); }

  // The text that is stored for this secret: that of an unreadable one unchanged; empty for an empty secret,
  // and, with an error line, when the protection key is not available.
  std::string getV8Password() const;

  // The secret from its V8 text. False, with `out` unchanged, when the text was not made with this machine's
  // protection key or was altered.
  static bool fromV8Password(std::string_view text, pstring& out);

  // The same for a text from a file: one that looks like a V8 text and cannot be opened becomes an unreadable
  // secret. False, with `out` unchanged, for a text that does not look like one.
  static bool fromStoredText(std::string_view text, pstring& out);

  // The secret itself, for the encrypted session and for the module that needs it in clear; empty when it is
  // unreadable. The view is valid as long as this object is unchanged; what is copied from it is the caller's
  // to wipe.
  std::string_view reveal() const { return secret_; }

  // Names the key file of this process from now on; an empty path selects the registry's again.
  static void UseKeyFile(const std::string& path);

  // Makes a key file for a store that is just being made; an error, with nothing changed, when there is a
  // file already. By one process at a time for each path.
  static CWmError CreateKeyFile(const std::string& path);

  // Looks the key up anew; an error, which names the file and the way out, when it cannot be used.
  static CWmError CheckKey();

 private:
  void wipe();

  std::string secret_;
  std::string sealed_;  // the text that could not be opened; then there is no secret
};
