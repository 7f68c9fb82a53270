#include "overhub/store/session_keys.h"

#include <cstring>  // explicit_bzero

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/pstring.h"
#include "overhub/store/client_name.h"
#include "overhub/store/clients.h"

CWmError protectSessionKey(const Store& store, const std::string& hex, std::string& protectedKey) {
  protectedKey = pstring(hex).getV8Password();
  if (!protectedKey.empty()) return {};
  return {kLqErrFile, "a session key cannot be protected with " + store.keyFile()};
}

bool findSessionKey(const Store& store, const std::string& client, std::string& key) {
  constexpr const char* kTag = "overhub::findSessionKey";
  std::string hex;
  const CWmError error =
      isClientName(client) ? readSessionKey(store, client, hex) : CWmError(kLqErrRequestRefused, "");
  if (error.GetCode() == kLqErrRequestRefused) {
    // Anybody can bring this about as often as they like; the listener sums it up.
    ObEvent().DebugLvl(3, kTag, "a caller says that it is \"%s\", which is no client here", client.c_str());
    return false;
  }
  const bool usable = !error.IsError() && sessionKeyFromHex(hex, key);
  explicit_bzero(hex.data(), hex.size());
  if (!usable) ObEvent().Error(kTag, "client %s cannot be let in: %s", client.c_str(), error.AsString());
  return usable;
}

CWmError readSessionKey(const Store& store, const std::string& client, std::string& hex) {
  std::string protectedKey;
  const CWmError error = store.database().read([&](soci::session& session) -> CWmError {
    const auto found = findClient(session, client);
    if (!found) return {kLqErrRequestRefused, "there is no client \"" + client + "\""};
    protectedKey = protectedKeyOf(session, found->id);
    return {};
  });
  if (error.IsError()) return error;
  pstring key;
  if (!pstring::fromV8Password(protectedKey, key))
    return {kLqErrFile, "the session key of " + client + " was protected with another key than " +
                            store.keyFile() +
                            "; put the right one back, or give the client a new one with "
                            "\"overhub renew-client " +
                            client + "\""};
  hex = key.reveal();
  return {};
}
