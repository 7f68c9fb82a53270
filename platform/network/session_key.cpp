// Session keys as people and registries hold them: 64 hexadecimal digits.

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>

#include "lqregistry/CLqNetwork.h"

namespace {

constexpr char kDigits[] = "0123456789abcdef";

int digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

std::string newSessionKeyHex() {
  std::array<unsigned char, kSessionKeyBytes> key{};
  if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) return {};
  std::string hex;
  hex.reserve(2 * key.size());
  for (const unsigned byte : key) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  OPENSSL_cleanse(key.data(), key.size());
  return hex;
}

bool sessionKeyFromHex(const std::string& hex, std::string& key) {
  if (hex.size() != 2 * kSessionKeyBytes) return false;
  std::string bytes(kSessionKeyBytes, '\0');
  bool valid = true;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = digitValue(hex[2 * i]);
    const int low = digitValue(hex[2 * i + 1]);
    valid = valid && high >= 0 && low >= 0;
    bytes[i] = static_cast<char>((high & 15) << 4 | (low & 15));
  }
  if (valid) key = bytes;
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return valid;
}
