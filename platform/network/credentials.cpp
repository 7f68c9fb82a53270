#include "platform/network/credentials.h"

#include <openssl/crypto.h>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr char kAdvice[] = "; run \"lqhost join\" on this machine";

}  // namespace

Credentials::~Credentials() {
  OPENSSL_cleanse(key.data(), key.size());
}

bool Credentials::equals(const Credentials& other) const {
  return identity == other.identity && key.size() == other.key.size() &&
         CRYPTO_memcmp(key.data(), other.key.data(), key.size()) == 0;
}

CWmError readCredentials(Credentials& credentials) {
  LQPlatformInfo info(LQPI_Focus::getFocus());
  std::string hex;
  if (!info.getString(lqsettings::kSessionIdentity.key, lqsettings::kSessionIdentity.name,
                      credentials.identity) ||
      !info.getString(lqsettings::kSessionKey.key, lqsettings::kSessionKey.name, hex)) {
    std::string reason = "this machine holds no session key for the server";
    if (info.getRegError() == kRegUnavailable)
      return {kLqErrNoCredentials, reason + ": " + info.getRegErrorText()};
    return {kLqErrNoCredentials, reason + kAdvice};
  }
  const bool usable = sessionKeyFromHex(hex, credentials.key) && !credentials.identity.empty() &&
                      credentials.identity.size() <= kMaxIdentityBytes;
  OPENSSL_cleanse(hex.data(), hex.size());
  if (usable) return {};
  return {kLqErrNoCredentials,
          std::string("the session identity or key in this machine's registry is damaged") + kAdvice};
}
