// The protected string over OpenSSL's AES-256-SIV, and the protection key's file.
#include "lqregistry/pstring.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObDebug.h"

namespace {

constexpr const char* kPrefix = "V8:";
constexpr std::size_t kPrefixLength = 3;
constexpr std::size_t kKeyBytes = 64;  // AES-256-SIV takes two keys of 32 bytes
constexpr std::size_t kTagBytes = 16;  // the synthetic initialisation vector, put before the encrypted bytes

using Key = std::array<unsigned char, kKeyBytes>;

std::mutex keyMutex;
std::string keyFile;          // guarded by keyMutex
std::optional<Key> keyInUse;  // guarded by keyMutex

bool readKey(const std::string& path, Key& key, std::string& reason) {
  auto_handle handle;
  CWmError error = FXFile::LQCreateFile(path, FXFile::kGenericRead, FXFile::kShareRead, nullptr,
                                        FXFile::kOpenExisting, FXFile::kAttributeNormal, nullptr, handle);
  std::uint32_t got = 0;
  if (!error.IsError()) error = FXFile::LQReadFile(handle, key.data(), kKeyBytes, got);
  if (error.IsError()) {
    reason = error.AsString();
    return false;
  }
  if (got == kKeyBytes) return true;
  reason = path + ": not a key file (" + std::to_string(got) + " bytes instead of " +
           std::to_string(kKeyBytes) + ")";
  return false;
}

// Puts the folder's entry for a new file on disk: a key that a power cut takes back takes its values along.
bool syncFolderOf(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  const std::string folder = separator == std::string::npos ? "." : path.substr(0, separator + 1);
  const auto_handle handle(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle.isValid() && ::fsync(handle.get()) == 0;
}

// Writes a fresh key beside its final name and links it there, so that of several processes that start at
// once one key wins and none is ever seen half written.
bool createKey(const std::string& path, std::string& reason) {
  Key key;
  std::string temporary = path + ".XXXXXX";
  const auto_handle handle(::mkostemp(temporary.data(), O_CLOEXEC));
  bool written = handle.isValid() && RAND_bytes(key.data(), kKeyBytes) == 1;
  std::uint64_t put = 0;
  written = written && !FXFile::LQWriteFile(handle, key.data(), kKeyBytes, put).IsError() &&
            ::fsync(handle.get()) == 0;
  OPENSSL_cleanse(key.data(), kKeyBytes);
  written =
      written && (::link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST) && syncFolderOf(path);
  if (!written)
    reason = path + ": " + std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): glibc's is safe
  if (handle.isValid()) ::unlink(temporary.c_str());
  return written;
}

// The protection key; nothing, with an error line, when it cannot be had. Only who is about to protect
// something may create it: what a lost key has protected must not look as if another key had been meant.
enum class KeyUse { kProtect, kReveal };

std::optional<Key> protectionKey(KeyUse use, const char* caller) {
  const std::lock_guard lock(keyMutex);
  if (keyInUse) return keyInUse;
  const std::string path = keyFile.empty() ? lqregistry::File() + ".key" : keyFile;
  Key key;
  std::string reason;
  const bool mustCreate = use == KeyUse::kProtect && ::access(path.c_str(), F_OK) != 0;
  bool known = !mustCreate || createKey(path, reason);
  known = known && readKey(path, key, reason);
  if (!known) {
    ObEvent().Error(caller, "No protection key for protected values: %s", reason.c_str());
    return std::nullopt;
  }
  keyInUse = key;
  OPENSSL_cleanse(key.data(), kKeyBytes);
  return keyInUse;
}

struct SivCipher {
  SivCipher() : cipher(EVP_CIPHER_fetch(nullptr, "AES-256-SIV", nullptr), &EVP_CIPHER_free) {}
  std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher;
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context{EVP_CIPHER_CTX_new(),
                                                                          &EVP_CIPHER_CTX_free};
};

// Tag and encrypted bytes; empty when the cryptographic library fails.
std::vector<unsigned char> seal(const Key& key, std::string_view secret) {
  const SivCipher siv;
  std::vector<unsigned char> sealed(kTagBytes + secret.size());
  int length = 0;
  const bool done =
      siv.cipher &&
      EVP_EncryptInit_ex2(siv.context.get(), siv.cipher.get(), key.data(), nullptr, nullptr) == 1 &&
      EVP_EncryptUpdate(siv.context.get(), sealed.data() + kTagBytes, &length,
                        reinterpret_cast<const unsigned char*>(secret.data()),
                        static_cast<int>(secret.size())) == 1 &&
      EVP_EncryptFinal_ex(siv.context.get(), sealed.data() + kTagBytes + length, &length) == 1 &&
      EVP_CIPHER_CTX_ctrl(siv.context.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes, sealed.data()) == 1;
  if (!done) sealed.clear();
  return sealed;
}

bool unseal(const Key& key, std::vector<unsigned char>& sealed, std::string& secret) {
  const SivCipher siv;
  const std::size_t size = sealed.size() - kTagBytes;
  secret.resize(size);
  int length = 0;
  return siv.cipher &&
         EVP_DecryptInit_ex2(siv.context.get(), siv.cipher.get(), key.data(), nullptr, nullptr) == 1 &&
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
  wipe();
}
pstring::pstring(const pstring& other) = default;
pstring::pstring(pstring&& other) noexcept : secret_(std::move(other.secret_)) {
  other.wipe();
}
pstring& pstring::operator=(const pstring& other) {
  if (this != &other) {
    wipe();
    secret_ = other.secret_;
  }
  return *this;
}
pstring& pstring::operator=(pstring&& other) noexcept {
  if (this != &other) {
    wipe();
    secret_ = std::move(other.secret_);
    other.wipe();
  }
  return *this;
}

void pstring::wipe() {
  secret_.resize(secret_.capacity());  // a short string moved from keeps its bytes behind its length
  OPENSSL_cleanse(secret_.data(), secret_.size());
  secret_.clear();
}

std::string pstring::getV8Password() const {
  if (secret_.empty()) return {};
  const auto key = protectionKey(KeyUse::kProtect, "pstring::getV8Password");
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
  const auto key = protectionKey(KeyUse::kReveal, "pstring::fromV8Password");
  pstring opened;
  if (!key || !unseal(*key, sealed, opened.secret_)) return false;
  out = std::move(opened);
  return true;
}

void pstring::UseKeyFile(const std::string& path) {
  const std::lock_guard lock(keyMutex);
  keyFile = path;
  keyInUse.reset();
}
