#include "overhub/store/session_keys.h"

#include <cstring>  // explicit_bzero

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/pstring.h"
#include "overhub/store/clients.h"

namespace {

CWmError revealed(const Store& store, const std::string& client, const std::string& protectedKey,
                  pstring& key) {
  if (pstring::fromV8Password(protectedKey, key)) return {};
  return {kLqErrFile,
          "the session key of " + client + " was protected with another key than " + store.keyFile() +
              "; put the right one back, or give the client a new one with \"overhub renew-client " + client +
              "\""};
}

}  // namespace

CWmError protectSessionKey(const Store& store, const std::string& hex, std::string& protectedKey) {
  protectedKey = pstring(hex).getV8Password();
  if (!protectedKey.empty()) return {};
  return {kLqErrFile, "a session key cannot be protected with " + store.keyFile()};
}

CWmError readProtectedKey(const Store& store, const std::string& client, std::string& protectedKey) {
  return store.database().peek([&](soci::session& session) -> CWmError {
    const auto found = findClient(session, client);
    if (!found) return {kLqErrRequestRefused, "there is no client \"" + client + "\""};
    protectedKey = protectedKeyOf(session, found->id);
    return {};
  });
}

CWmError openSessionKey(const Store& store, const std::string& client, const std::string& protectedKey,
                        std::string& key) {
  pstring hex;
  CWmError error = revealed(store, client, protectedKey, hex);
  if (error.IsError()) return error;
  std::string digits(hex.reveal());
  const bool isKey = sessionKeyFromHex(digits, key);
  explicit_bzero(digits.data(), digits.size());
  if (isKey) return {};
  return {kLqErrFile, "the session key of " + client + " is not one of 64 hexadecimal digits"};
}

CWmError readSessionKey(const Store& store, const std::string& client, std::string& hex) {
  std::string protectedKey;
  CWmError error = readProtectedKey(store, client, protectedKey);
  pstring key;
  if (!error.IsError()) error = revealed(store, client, protectedKey, key);
  if (!error.IsError()) hex = key.reveal();
  return error;
}
