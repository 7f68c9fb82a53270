// Session keys as people and registries hold them: 64 hexadecimal digits.

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/PrintableText.h"

std::string newSessionKeyHex() {
  std::array<unsigned char, kSessionKeyBytes> key{};
  if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) return {};
  std::string hex;
  hex.reserve(2 * key.size());
  for (const unsigned char byte : key) lqtext::appendHex(hex, static_cast<char>(byte));
  OPENSSL_cleanse(key.data(), key.size());
  return hex;
}

bool sessionKeyFromHex(const std::string& hex, std::string& key) {
  if (hex.size() != 2 * kSessionKeyBytes) return false;
  std::string bytes(kSessionKeyBytes, '\0');
  bool valid = true;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = lqtext::hexValue(hex[2 * i]);
    const int low = lqtext::hexValue(hex[2 * i + 1]);
    valid = valid && high >= 0 && low >= 0;
    bytes[i] = static_cast<char>((high & 15) << 4 | (low & 15));
  }
  if (valid) key = bytes;
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return valid;
}
