#include "platform/secret/protection_key.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string_view>

#include "lqregistry/FXFile.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/PrintableText.h"
#include "platform/base/file_replacement.h"

namespace lqsecret {

namespace {

constexpr mode_t kAccessOfOthers = 077;
constexpr const char* kStagedSuffix = ".new";
constexpr std::string_view kFingerprintLabel = "registry protection key";
constexpr std::size_t kFingerprintBytes = 16;

// Never destroyed: other libraries' statics may hold protected values while they are torn down.
struct State {
  std::mutex mutex;
  KeySource source = nullptr;
  std::string path;  // named by the process; empty: the source says
  std::shared_ptr<const Key> key;
  std::string complaint;  // the reason that was logged and has not gone away yet
};

State& state() {
  static auto* const theState = new State;
  return *theState;
}

CWmError keyError(const std::string& path, const std::string& what) {
  return {kLqErrFile, path + ": " + what};
}

CWmError readKey(const std::string& path, Key& key) {
  CWmError error = FXFile::CheckTrusted(path);
  if (error.IsError()) return error;
  auto_handle handle;
  error = lqfile::openRegular(path, O_RDONLY | O_NOFOLLOW, handle);
  if (error.IsError()) return error;
  struct stat status {};
  if (::fstat(handle.get(), &status) != 0) return lqfile::errorOf(path);
  if ((status.st_mode & kAccessOfOthers) != 0)
    return keyError(path, "others may read this protection key; end that with \"chmod 600 " + path +
                              "\", and change the secrets that it protects if somebody may have");
  std::uint32_t got = 0;
  error = FXFile::LQReadFile(handle, key.bytes.data(), kKeyBytes, got);
  if (error.IsError()) return error;
  if (got == kKeyBytes && status.st_size == static_cast<off_t>(kKeyBytes)) return {};
  return keyError(path, "not a protection key (" + std::to_string(status.st_size) + " bytes instead of " +
                            std::to_string(kKeyBytes) + "); put the right one back from a backup");
}

std::string fingerprint(const Key& key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), kFingerprintLabel.data(), kFingerprintLabel.size()) != 1 ||
      EVP_DigestUpdate(context.get(), key.bytes.data(), kKeyBytes) != 1 ||
      EVP_DigestFinal_ex(context.get(), digest, nullptr) != 1)
    return {};
  std::string text;
  for (std::size_t i = 0; i < kFingerprintBytes; ++i) lqtext::appendHex(text, static_cast<char>(digest[i]));
  return text;
}

// Goes on where a process was killed between the store's commit and the last step.
void placeStagedKey(const KeyFacts& facts) {
  std::string staged;
  if (keyFileExists(facts.path) || facts.fingerprint.empty()) return;
  if (fingerprintOf(facts.path + kStagedSuffix, staged).IsError() || staged != facts.fingerprint) return;
  static_cast<void>(placeKey(facts.path));  // whoever reads the key says that it is not in place
}

CWmError missingKey(const KeyFacts& facts) {
  const std::string whose = facts.store.empty() ? "" : " (it belongs to " + facts.store + ")";
  return keyError(facts.path,
                  "the protection key is missing" + whose +
                      ", and what it protects cannot be read without it; put it back from a backup");
}

CWmError loadKey(const KeyFacts& facts, Key& key) {
  if (!facts.problem.empty()) return {kLqErrFile, facts.problem};
  placeStagedKey(facts);
  if (!keyFileExists(facts.path)) return missingKey(facts);
  CWmError error = readKey(facts.path, key);
  if (error.IsError() || facts.fingerprint.empty() || fingerprint(key) == facts.fingerprint) return error;
  return keyError(facts.path, "not the protection key that belongs to " + facts.store +
                                  ", but another one's; put the right one back from a backup");
}

KeyFacts factsFor(KeyUse use) {
  State& s = state();
  std::unique_lock lock(s.mutex);
  if (!s.path.empty()) return {s.path, {}, {}, {}};
  const KeySource source = s.source;
  // The source asks the store, which may ask this room in turn.
  lock.unlock();
  return source == nullptr ? KeyFacts{{}, {}, {}, "no protection key is named"} : source(use);
}

}  // namespace

Key::~Key() {
  OPENSSL_cleanse(bytes.data(), bytes.size());
}

void setKeySource(KeySource source) {
  const std::lock_guard lock(state().mutex);
  state().source = source;
}

std::shared_ptr<const Key> keyInForce(KeyUse use, const char* caller) {
  State& s = state();
  {
    const std::lock_guard lock(s.mutex);
    if (s.key) return s.key;
  }
  const auto key = std::make_shared<Key>();
  const CWmError error = loadKey(factsFor(use), *key);
  const std::lock_guard lock(s.mutex);
  if (!error.IsError()) {
    s.key = key;
    return key;
  }
  // Ten thousand values without a key are one line, not ten thousand.
  if (s.complaint != error.AsString())
    ObEvent().Error(caller, "No protection key for protected values: %s", error.AsString());
  s.complaint = error.AsString();
  return nullptr;
}

CWmError checkKey() {
  Key key;
  return loadKey(factsFor(KeyUse::kReveal), key);
}

void forgetKey() {
  State& s = state();
  const std::lock_guard lock(s.mutex);
  s.key.reset();
  s.complaint.clear();
}

void useKeyFile(const std::string& path) {
  forgetKey();
  const std::lock_guard lock(state().mutex);
  state().path = path;
}

bool keyFileExists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

CWmError fingerprintOf(const std::string& path, std::string& text) {
  Key key;
  CWmError error = readKey(path, key);
  if (!error.IsError()) text = fingerprint(key);
  return error;
}

CWmError stageKey(const std::string& path, std::string& text) {
  if (keyFileExists(path)) return keyError(path, "there is a protection key already");
  CWmError error = FXFile::CheckTrusted(path);
  if (error.IsError()) return error;
  Key key;
  if (RAND_bytes(key.bytes.data(), kKeyBytes) != 1)
    return keyError(path, "the cryptographic library gives no random bytes for a key");
  text = fingerprint(key);
  return FXFile::ReplaceContents(path + kStagedSuffix,
                                 {reinterpret_cast<const char*>(key.bytes.data()), kKeyBytes});
}

CWmError placeKey(const std::string& path) {
  const std::string staged = path + kStagedSuffix;
  // A link never replaces what somebody else has put there meanwhile. If that is another key, the staged one
  // is the only copy of what protects the store.
  if (::link(staged.c_str(), path.c_str()) != 0) {
    std::string mine;
    std::string there;
    if (errno != EEXIST) return lqfile::errorOf(path);
    if (fingerprintOf(staged, mine).IsError() || fingerprintOf(path, there).IsError() || mine != there)
      return keyError(path, "something else has been put here; the protection key is " + staged);
  }
  CWmError error = lqfile::syncDirectoryOf(path);
  if (!error.IsError()) ::unlink(staged.c_str());
  return error;
}

}  // namespace lqsecret
