// What the server asks of this client without waiting for its schedule: a pushed batch, named values.
#include <array>

#include "client_session/session_steps.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "records/record_conversion.h"

namespace {

constexpr const char* kFetchTag = "LqRegistryManager::getRequestedKeys";
constexpr const char* kSendTag = "LqRegistryManager::sendRequestedKeys";
constexpr int kFetchBuffer = 1024;

constexpr unsigned kAnswered = 1;
constexpr unsigned kNotAnswered = 0;

}  // namespace

unsigned LqRegistryManagerClnt::serverRequestHandler(OBGui::RegistryTaskResp& request) {
  const std::string name = clientName();
  if (!findClientId(name)) {
    logger.Error("LqRegistryManagerClnt::serverRequestHandler", "Failed to get client id for client[%s]",
                 name.c_str());
    return kNotAnswered;
  }
  serverRequest.keys.edit().clear();
  serverRequest.client.edit().clientId = narrowedClientId();
  const bool applied = updateRegistryKeysForClient(request.keys.edit()) == kResultOk;
  serverRequest.taskStatus = OBGui::taskStatusOf(applied);
  sendMessage = &serverRequest;
  return kAnswered;
}

void LqRegistryManagerClnt::getRequestedKeys(App::KeyList* keys) {
  regStatus = kRegStatusOk;
  if (keys == nullptr) {
    logger.DebugLvl(kLogDetail, kFetchTag, "Requested key list not set");
    return;
  }
  // The length is handed from read to read and never reset, which is part of what a fetch answers: a value
  // has room for no more than the shortest one before it. Nor is the buffer, because a read that succeeds
  // leaves a NUL after the data: nothing of an earlier value shows in a later one.
  int length = kFetchBuffer;
  std::array<char, kFetchBuffer> value;
  for (App::RegistryKeyInfo& key : *keys) {
    if (!key.valueName.isSet() || !key.keyPath.isSet() || !key.valueType.isSet()) {
      logger.DebugLvl(kLogDetail, kFetchTag, "One or more key not set properly");
      continue;
    }
    unsigned type = getKeyType(key.valueType);
    const std::string path = lqsettings::kInstanceRoot + key.keyPath.get();
    const char* const name = key.valueName->c_str();
    if (platformInfo.getRegValue(path, key.valueName, type, value.data(), length)) {
      key.value = std::string(value.data());
      logger.DebugLvl(kLogDetail, kFetchTag, "set value = %s for key = %s", key.value->c_str(), name);
    } else {
      logger.DebugLvl(kLogDetail, kFetchTag, "failed to fetch key %s at %s", name, path.c_str());
    }
    switch (platformInfo.getRegError()) {
      case kRegOk:
        break;
      case kRegKeyMissing:
        regStatus = kRegStatusKeyMissing;
        logger.DebugLvl(kLogDetail, kFetchTag, "bad registry key %s", name);
        break;
      case kRegValueMissing:
        regStatus = kRegStatusValueMissing;
        logger.DebugLvl(kLogDetail, kFetchTag, "bad field %s for registry key %s", path.c_str(), name);
        break;
      default:
        regStatus = kRegStatusReadFailed;
        logger.DebugLvl(kLogDetail, kFetchTag, "Unable to fetch key %s from path %s", name, path.c_str());
    }
  }
  if (regStatus != kRegStatusOk) logger.Debug(kFetchTag, "Unable to fetch one or more keys in the list");
}

void LqRegistryManagerClnt::sendRequestedKeys(CLqNetwork* session, App::KeyList* keys) {
  if (session == nullptr || keys == nullptr) {
    logger.Error(kSendTag, "Session or keys to send not set. Failed to send.");
    return;
  }
  App::FetchClientRegistry answer;
  answer.keyInfo.edit().keys = *keys;
  sendMessage = &answer;
  bool peerGone = false;
  const CWmError error = session->SendXMLMessage(answer, 0, session_steps::kNoTimeout, peerGone);
  if (error.IsError())
    logger.Debug(kSendTag, "Failed to send message [%lu], Error [%s]", answer.getTagID(), error.AsString());
  session->ReplyDisconnect(session_steps::kDisconnectSeconds, peerGone);
  sendMessage = nullptr;  // the answer ends here
}
