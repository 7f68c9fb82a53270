// LqDigest: tells one sequence of texts from another, for whoever holds the same key.
//
// Client and server take the digest of a batch to know, without its records, that they speak of the same one.
// It covers secrets too, which is why it is keyed: without the key nobody can try values until one fits. A
// real platform library provides the same three operations over a keyed hash of its own.
//
// HMAC (RFC 2104) with SHA-256. Used by one thread; not copied.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "lqregistry/LqExport.h"

class LQ_EXPORT LqDigest {
 public:
  // With a key of any size; it is not kept beyond this object.
  explicit LqDigest(std::string_view key);
  ~LqDigest();
  LqDigest(const LqDigest&) = delete;
  LqDigest& operator=(const LqDigest&) = delete;

  // One more text, of any bytes. Its length counts as well: "ab", "c" is not "a", "bc".
  void add(std::string_view text);

  // The digest of all that was added, as 64 hexadecimal digits in lower case; empty when the cryptographic
  // library fails. To be called once.
  std::string finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
