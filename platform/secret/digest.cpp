// The keyed digest over OpenSSL's HMAC.
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <cstdint>

#include "lqregistry/LqDigest.h"

struct LqDigest::Impl {
  std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> mac{EVP_MAC_fetch(nullptr, "HMAC", nullptr),
                                                        &EVP_MAC_free};
  std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> context{
      mac ? EVP_MAC_CTX_new(mac.get()) : nullptr, &EVP_MAC_CTX_free};
  bool isSound = false;

  void update(const void* bytes, std::size_t size) {
    isSound = isSound && EVP_MAC_update(context.get(), static_cast<const unsigned char*>(bytes), size) == 1;
  }
};

LqDigest::LqDigest(std::string_view key) : impl_(std::make_unique<Impl>()) {
  char name[] = "SHA256";
  const std::array<OSSL_PARAM, 2> parameters{OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name, 0),
                                             OSSL_PARAM_construct_end()};
  impl_->isSound =
      impl_->context && EVP_MAC_init(impl_->context.get(), reinterpret_cast<const unsigned char*>(key.data()),
                                     key.size(), parameters.data()) == 1;
}

LqDigest::~LqDigest() = default;

void LqDigest::add(std::string_view text) {
  const auto size = static_cast<std::uint64_t>(text.size());
  std::array<unsigned char, sizeof size> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(size >> (8 * i));
  impl_->update(bytes.data(), bytes.size());
  impl_->update(text.data(), text.size());
}

std::string LqDigest::finish() {
  std::array<unsigned char, 32> digest{};
  std::size_t size = 0;
  if (!impl_->isSound || EVP_MAC_final(impl_->context.get(), digest.data(), &size, digest.size()) != 1)
    return {};
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * size);
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[digest[i] >> 4];
    text += kDigits[digest[i] & 15];
  }
  return text;
}
