// The download pass: request the key batch, apply it, refresh the cache, acknowledge.
#include <utility>

#include "lqregistry/LQClient.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace {

constexpr const char* kPassTag = "LqRegistryManagerClnt::downLoadAndUpdateClient";
constexpr const char* kTask = "download";
constexpr const char* kRepairTag = "downLoadAndUpdateClient";

constexpr const char* kLogDirectoryValue = "dOBLOGDIR";
constexpr const char* kHomeSection = "Base";
constexpr const char* kHomeValue = "dVELMORHOME";
constexpr const char* kLogFolder = "Log_Files";
constexpr const char* kFolderSeparator = "/";

// Whether the cache may be replaced by a reply with this many records. A cache that cannot be read, or that
// holds more records than the reply, is left as it is; a server that lost records must not
// empty it.
bool mayReplaceCache(std::size_t repliedKeys) {
  const std::string text = LqRegistryManagerClnt::getAdditionalSettingsCache();
  if (text.empty()) return true;
  OBGui::RegistryTaskResp cached;
  return cached.unserialize(text) == 0 && cached.keys->size() <= repliedKeys;
}

// The server's removal of the log directory was applied already; it ends in the default directory rather than
// in none, because a host without a log directory is a host that nobody can look into.
void resetLogDirectory(LqRegistryManagerClnt& client, const OBGui::RegistryKeyInfo& removed) {
  std::string home;
  LQPlatformInfo current(LQPI_Focus::getFocus());
  if (!current.getDirectory(kHomeSection, kHomeValue, home) || home.empty()) {
    client.logger.Error(kRepairTag, "Cannot determine Velmor Home folder");
    return;
  }
  client.logger.Debug(kRepairTag, " Fetched dVELMORHOME regKey from client's registry :: %s", home.c_str());
  const std::string directory = home + kFolderSeparator + kLogFolder;
  OBGui::KeyList repair{removed};
  repair[0].value = directory;
  repair[0].deleteFlag = 0;
  if (client.updateRegistryKeysForClient(repair) != kResultOk) {
    client.logger.Error(kRepairTag,
                        "  Got issue while adding dOBLOGDIR key at client's registry with default path :: %s",
                        directory.c_str());
  } else {
    client.logger.Debug(kRepairTag,
                        " dOBLOGDIR key added successfully at client's registry with default path :: %s",
                        directory.c_str());
  }
}

// Rewrites the cache from the reply, without the records that are to be removed. Uses the reply up.
void refreshSettingsCache(LqRegistryManagerClnt& client, OBGui::RegistryTaskResp& reply) {
  OBGui::KeyList received = std::move(reply.keys.edit());
  OBGui::RegistryTaskResp& cache = reply;  // everything of the reply but the records that are left out
  cache.keys.edit().clear();
  for (OBGui::RegistryKeyInfo& key : received) {
    const bool isRemoved = key.deleteFlag == 1;
    if (isRemoved && key.valueName.get() == kLogDirectoryValue) resetLogDirectory(client, key);
    if (!isRemoved) cache.keys.edit().push_back(std::move(key));
  }
  std::string text;
  if (cache.serialize(text, false) != 0) {
    client.logger.Error(
        kPassTag,
        "The Additional Settings cache is left as it was: its protected values cannot be protected");
    return;
  }
  LqRegistryManagerClnt::setAdditionalSettingsCache(std::move(text));
}

}  // namespace

unsigned LqRegistryManagerClnt::downLoadAndUpdateClient() {
  const std::string name = clientName();
  if (!findClientId(name)) {
    logger.Error(kPassTag, "Failed to get client id for client[%s]", name.c_str());
    return kResultFailed;
  }

  // From the request on: a batch that was asked for later must not be overtaken by an older one. And to the
  // end of the pass, so that the server gets the acknowledgements in the order in which the batches were
  // applied.
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
  acknowledgement.taskStatus = OBGui::kTaskSuccess;
  acknowledgement.client.edit().clientId = static_cast<std::int64_t>(clientId);
  if (updateRegistryKeysForClient(reply->keys.edit()) != kResultOk)
    acknowledgement.taskStatus = OBGui::kTaskFailed;
  OBGui::RegisterSubsystem();
  sendMessage = &acknowledgement;

  if (mayReplaceCache(reply->keys->size())) refreshSettingsCache(*this, *reply);

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
