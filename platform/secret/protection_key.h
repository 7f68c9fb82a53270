// The protection key: 64 random bytes in a file of its own, made together with the store whose values it
// protects, and never again.
//
// A key that is lost cannot be had back, and another one in its place would only hide that. So nothing here
// replaces a key: a missing one, another store's, or one that others may read is an error that names the file
// and the way out. The store keeps the key's fingerprint; the rooms above say through a KeySource where the
// key lies and which fingerprint it must have.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "lqregistry/CWmError.h"

namespace lqsecret {

inline constexpr std::size_t kKeyBytes = 64;  // AES-256-SIV takes two keys of 32 bytes

// The bytes of a key, wiped at the end. There is one object for each key in use; nobody copies it.
struct Key {
  Key() = default;
  ~Key();
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  std::array<unsigned char, kKeyBytes> bytes{};
};

// Whoever is about to protect something may have the store made that the key belongs to.
enum class KeyUse { kProtect, kReveal };

// What the store knows of its key.
struct KeyFacts {
  std::string path;         // of the key file
  std::string store;        // of the store's file; empty when the key stands for itself
  std::string fingerprint;  // empty: the store does not know it
  std::string problem;      // why the store cannot be asked; empty when it was
};

using KeySource = KeyFacts (*)(KeyUse use);

// Names the process's source; while none is named there is no key.
void setKeySource(KeySource source);

// The key in force, from memory or from its file; null with the reason, after at most one error line for it.
std::shared_ptr<const Key> keyInForce(KeyUse use, const char* caller);
// The same from its file in any case, and silently.
CWmError checkKey();
// Lets the key in memory go, because another store is used from now on.
void forgetKey();

// The key file of this process, whatever the source says; with an empty path the source counts again.
void useKeyFile(const std::string& path);

bool keyFileExists(const std::string& path);

// Tells keys apart and says nothing about them: 32 hexadecimal digits.
CWmError fingerprintOf(const std::string& path, std::string& fingerprint);

// Making a key takes two steps, between which the store records the fingerprint: a key that is staged but not
// in place does no harm, and a store whose key is staged finds it (keyInForce puts it in place). One process
// at a time for each path. Staging is an error when there is a key already.
CWmError stageKey(const std::string& path, std::string& fingerprint);
CWmError placeKey(const std::string& path);

}  // namespace lqsecret
