// The protected string over OpenSSL's AES-256-SIV.
#include "lqregistry/pstring.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "lqregistry/ObDebug.h"
#include "platform/secret/protection_key.h"

namespace {

constexpr const char* kPrefix = "V8:";
constexpr std::size_t kPrefixLength = 3;
constexpr std::size_t kTagBytes = 16;  // the synthetic initialisation vector, put before the encrypted bytes

struct SivCipher {
  SivCipher() : cipher(EVP_CIPHER_fetch(nullptr, "AES-256-SIV", nullptr), &EVP_CIPHER_free) {}
  std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher;
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context{EVP_CIPHER_CTX_new(),
                                                                          &EVP_CIPHER_CTX_free};
};

// Tag and encrypted bytes; empty when the cryptographic library fails.
std::vector<unsigned char> seal(const lqsecret::Key& key, std::string_view secret) {
  const SivCipher siv;
  std::vector<unsigned char> sealed(kTagBytes + secret.size());
  int length = 0;
  const bool done =
      siv.cipher &&
      EVP_EncryptInit_ex2(siv.context.get(), siv.cipher.get(), key.bytes.data(), nullptr, nullptr) == 1 &&
      EVP_EncryptUpdate(siv.context.get(), sealed.data() + kTagBytes, &length,
                        reinterpret_cast<const unsigned char*>(secret.data()),
                        static_cast<int>(secret.size())) == 1 &&
      EVP_EncryptFinal_ex(siv.context.get(), sealed.data() + kTagBytes + length, &length) == 1 &&
      EVP_CIPHER_CTX_ctrl(siv.context.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes, sealed.data()) == 1;
  if (!done) sealed.clear();
  return sealed;
}

bool unseal(const lqsecret::Key& key, std::vector<unsigned char>& sealed, std::string& secret) {
  const SivCipher siv;
  const std::size_t size = sealed.size() - kTagBytes;
  secret.resize(size);
  int length = 0;
  return siv.cipher &&
         EVP_DecryptInit_ex2(siv.context.get(), siv.cipher.get(), key.bytes.data(), nullptr, nullptr) == 1 &&
         EVP_CIPHER_CTX_ctrl(siv.context.get(), EVP_CTRL_AEAD_SET_TAG, kTagBytes, sealed.data()) == 1 &&
         EVP_DecryptUpdate(siv.context.get(), reinterpret_cast<unsigned char*>(secret.data()), &length,
                           sealed.data() + kTagBytes, static_cast<int>(size)) == 1;
}

std::string encodeBase64(const std::vector<unsigned char>& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// Accepts exactly what encodeBase64 gives.
bool decodeBase64(std::string_view text, std::vector<unsigned char>& bytes) {
  if (text.empty() || text.size() % 4 != 0) return false;
  bytes.resize(text.size() / 4 * 3);
  const int length = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) return false;
  std::size_t padding = 0;
  while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return encodeBase64(bytes) == text;  // the decoder overlooks blanks and spare bits
}

}  // namespace

pstring::pstring(std::string_view secret) : secret_(secret) {}
pstring::~pstring() {
  if (!secret_.empty()) wipe();
}
pstring::pstring(const pstring& other) = default;
pstring::pstring(pstring&& other) noexcept
    : secret_(std::move(other.secret_)), sealed_(std::move(other.sealed_)) {
  other.wipe();
}
pstring& pstring::operator=(const pstring& other) {
  if (this != &other) {
    wipe();
    secret_ = other.secret_;
    sealed_ = other.sealed_;
  }
  return *this;
}
pstring& pstring::operator=(pstring&& other) noexcept {
  if (this != &other) {
    wipe();
    secret_ = std::move(other.secret_);
    sealed_ = std::move(other.sealed_);
    other.wipe();
  }
  return *this;
}

void pstring::wipe() {
  secret_.resize(secret_.capacity());  // a short string moved from keeps its bytes behind its length
  OPENSSL_cleanse(secret_.data(), secret_.size());
  secret_.clear();
  sealed_.clear();
}

std::string pstring::getV8Password() const {
  if (isUnreadable()) return sealed_;
  if (secret_.empty()) return {};
  const auto key = lqsecret::keyInForce(lqsecret::KeyUse::kProtect, "pstring::getV8Password");
  if (!key) return {};
  const std::vector<unsigned char> sealed = seal(*key, secret_);
  if (sealed.empty()) {
    ObEvent().Error("pstring::getV8Password", "The cryptographic library cannot protect a value");
    return {};
  }
  return kPrefix + encodeBase64(sealed);
}

bool pstring::fromV8Password(std::string_view text, pstring& out) {
  if (text.empty()) {
    out = pstring();
    return true;
  }
  std::vector<unsigned char> sealed;
  if (!text.starts_with(kPrefix) || !decodeBase64(text.substr(kPrefixLength), sealed) ||
      sealed.size() <= kTagBytes)
    return false;
  const auto key = lqsecret::keyInForce(lqsecret::KeyUse::kReveal, "pstring::fromV8Password");
  pstring opened;
  if (!key || !unseal(*key, sealed, opened.secret_)) return false;
  out = std::move(opened);
  return true;
}

bool pstring::fromStoredText(std::string_view text, pstring& out) {
  if (fromV8Password(text, out)) return true;
  if (!text.starts_with(kPrefix)) return false;
  pstring unreadable;
  unreadable.sealed_ = text;
  out = std::move(unreadable);
  return true;
}

void pstring::UseKeyFile(const std::string& path) {
  lqsecret::useKeyFile(path);
}

CWmError pstring::CreateKeyFile(const std::string& path) {
  std::string fingerprint;
  CWmError error = lqsecret::stageKey(path, fingerprint);
  return error.IsError() ? error : lqsecret::placeKey(path);
}

CWmError pstring::CheckKey() {
  return lqsecret::checkKey();
}
