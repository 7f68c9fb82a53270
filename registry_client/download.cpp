// The download pass: request the key batch, apply it, refresh the cache, acknowledge.
#include <optional>
#include <utility>

#include "lqregistry/LQClient.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "registry_client/log_directory.h"
#include "registry_client/settings_cache.h"

namespace {

constexpr const char* kPassTag = "LqRegistryManagerClnt::downLoadAndUpdateClient";
constexpr const char* kTask = "download";

}  // namespace

unsigned LqRegistryManagerClnt::downLoadAndUpdateClient() {
  const std::string name = clientName();
  if (!findClientId(name)) {
    logger.Error(kPassTag, "Failed to get client id for client[%s]", name.c_str());
    return kResultFailed;
  }

  // From the request on: a batch that was asked for later must not be overtaken by an older one. And to the
  // end of the pass, so that the server gets the acknowledgements in the order of the batches.
  const LqPassLock lock(kTask);
  if (!lock.isHeld()) {
    logger.Error(kPassTag, "The download was not begun: %s", lock.reason().c_str());
    return kResultFailed;
  }

  OBGui::RegistryTaskReq request;
  request.client.edit().clientId = static_cast<std::int64_t>(clientId);
  exchange(request);  // the reply decides, not this result
  auto* const reply = messageAs<OBGui::RegistryTaskResp>(receivedMessage.get());
  if (reply == nullptr) return kResultFailed;

  OBGui::RegistryTaskResp acknowledgement;
  acknowledgement.client.edit().clientId = static_cast<std::int64_t>(clientId);
  const bool applied = updateRegistryKeysForClient(reply->keys.edit()) == kResultOk;
  acknowledgement.taskStatus = OBGui::taskStatusOf(applied);
  OBGui::RegisterSubsystem();
  sendMessage = &acknowledgement;

  const std::size_t repliedKeys = reply->keys->size();
  const OBGui::KeyList resets = logDirectoryRemovals(reply->keys);
  std::optional<std::string> settings = settingsTextOf(*reply);
  if (mayReplaceSettingsCache(repliedKeys, settings)) {
    for (const OBGui::RegistryKeyInfo& key : resets) resetLogDirectory(*this, key);
    if (settings) {
      setAdditionalSettingsCache(std::move(*settings));
    } else {
      logger.Error(
          kPassTag,
          "The Additional Settings cache is left as it was: its protected values cannot be protected");
    }
  }

  if (!sendWithoutReply(acknowledgement))
    logger.Error(kPassTag, "Failed to send the response to the server for client[%s]", name.c_str());
  return kResultOk;
}

int LqRegistryManagerClnt::downLoadRegKeysFromServer(OBGui::KeyList& keys, std::uint64_t, const std::string&,
                                                     const std::string&) {
  const OBGui::RegistryStaticKeyReq request;
  // Looked up and not used: a platform may ask the server then, and remember the answer.
  std::uint64_t ownId = 0;
  LQClient(localHostName, false, 0).getClientId(ownId, nullptr);
  exchange(request);
  const auto* const reply = messageAs<OBGui::RegistryTaskResp>(receivedMessage.get());
  if (reply == nullptr) return kResultFailed;
  keys = reply->keys.get();
  return kResultOk;
}
