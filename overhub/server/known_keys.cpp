#include "overhub/server/known_keys.h"

#include "lqregistry/ObDebug.h"
#include "overhub/store/client_name.h"
#include "overhub/store/session_keys.h"

namespace {

constexpr const char* kTag = "overhub::KnownKeys";

// Whoever calls meanwhile is not kept waiting for a store that has just failed.
constexpr std::chrono::seconds kRest{5};

}  // namespace

bool KnownKeys::find(const std::string& client, std::string& key) {
  std::string protectedKey;
  CWmError error = isClientName(client) ? look(client, protectedKey) : CWmError(kLqErrRequestRefused, "");
  if (error.GetCode() == kLqErrRequestRefused) {
    // Anybody can bring this about as often as they like; the listener sums it up.
    ObEvent().DebugLvl(3, kTag, "a caller says that it is \"%s\", which is no client here", client.c_str());
    return false;
  }
  if (!error.IsError()) error = openSessionKey(store_, client, protectedKey, key);
  if (error.IsError())
    ObEvent().Error(kTag, "client %s cannot be let in: %s", client.c_str(), error.AsString());
  return !error.IsError();
}

CWmError KnownKeys::look(const std::string& client, std::string& protectedKey) {
  const auto now = std::chrono::steady_clock::now();
  bool isResting = false;
  {
    const std::lock_guard lock(mutex_);
    isResting = now < failedUntil_;
  }
  CWmError error = isResting ? CWmError(kLqErrConnectionLost, "the store has failed a moment ago")
                             : readProtectedKey(store_, client, protectedKey);
  const std::lock_guard lock(mutex_);
  if (!error.IsError()) {
    seen_[client] = protectedKey;
    return error;
  }
  if (error.GetCode() == kLqErrRequestRefused) {
    seen_.erase(client);
    return error;
  }
  if (!isResting) failedUntil_ = std::chrono::steady_clock::now() + kRest;
  const auto known = seen_.find(client);
  if (known == seen_.end()) return error;
  protectedKey = known->second;
  return {};
}
