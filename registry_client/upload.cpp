// An upload: sends the whole local registry, which enumeration.cpp lists, and takes the server's verdict.
#include <utility>

#include "lqregistry/LqRegistryManagerClnt.h"

namespace {

constexpr const char* kPrepareTag = "LqRegistryManagerClnt::uploadKeys";
constexpr const char* kSendTag = "LqRegistryManager::uploadRegistryKeysToServer";

}  // namespace

unsigned LqRegistryManagerClnt::uploadKeys() {
  OBGui::KeyList records;
  if (enumerateClientKeysInfo(localHostName.c_str(), records) != kResultOk) {
    logger.Error(kPrepareTag, "Failed to Upload RegistryKeys to Server");
    return kResultFailed;
  }
  OBGui::RegistryTaskResp message;
  CNMessageBase::Initialize();
  message.keys = std::move(records);
  message.taskStatus = OBGui::kTaskUpload;
  const std::string name = clientName();
  if (!findClientId(name)) {
    logger.Error(kPrepareTag, "Failed to get client id for client[%s],Upload RegistryKeys failed",
                 name.c_str());
    return kResultFailed;
  }
  message.client.edit().clientId = narrowedClientId();
  return uploadRegistryKeysToServer(message);
}

unsigned LqRegistryManagerClnt::uploadRegistryKeysToServer(OBGui::RegistryTaskResp& message) {
  const char* const host = localHostName.c_str();
  logger.DebugLvl(3, kSendTag, "Uploading Registry Keys for client [%s].", host);
  OBGui::RegisterSubsystem();
  exchange(message);  // the reply decides, not this result
  const auto* const reply = messageAs<OBGui::RegistryTaskResp>(receivedMessage.get());
  // A lost reply is not a failure: the server may well have stored the upload, and the next one starts from
  // scratch anyway.
  if (reply == nullptr) return kResultOk;
  if (reply->taskStatus == OBGui::kTaskFailed) {
    logger.Error(kSendTag, "Uploading Registry Keys for client [%s]. Received failed Response from Server.",
                 host);
    return kResultFailed;
  }
  // Through the error channel too, so that an upload stands in every log.
  logger.Error(kSendTag, "Uploading Registry Keys for client [%s]. Received Success Response from Server.",
               host);
  return kResultOk;
}
