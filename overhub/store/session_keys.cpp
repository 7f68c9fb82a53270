// The clients' session keys in the data directory.
#include <cstring>  // explicit_bzero

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/ObDebug.h"
#include "overhub/store/data_store.h"

bool DataStore::findSessionKey(const std::string& client, std::string& key) const {
  constexpr const char* kTag = "DataStore::findSessionKey";
  if (!hasClient(client)) {
    // Anybody can bring this about as often as they like; the listener sums it up.
    ObEvent().DebugLvl(3, kTag, "a caller says that it is \"%s\", which is no client here", client.c_str());
    return false;
  }
  std::string hex;
  CWmError error = readSessionKey(client, hex);
  const bool usable = !error.IsError() && sessionKeyFromHex(hex, key);
  explicit_bzero(hex.data(), hex.size());
  if (!usable) ObEvent().Error(kTag, "client %s cannot be let in: %s", client.c_str(), error.AsString());
  return usable;
}

CWmError DataStore::readSessionKey(const std::string& client, std::string& hex) const {
  CWmError error = file_access::readWord(keyFile(client), hex);
  if (error.IsError()) return error;
  std::string key;
  const bool usable = sessionKeyFromHex(hex, key);
  explicit_bzero(key.data(), key.size());
  if (!usable) return {kLqErrFile, keyFile(client) + " does not hold 64 hexadecimal digits"};
  return {};
}

CWmError DataStore::writeSessionKey(const std::string& client, const std::string& hex) const {
  return file_access::replace(keyFile(client), hex + '\n');
}
