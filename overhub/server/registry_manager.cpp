#include "overhub/server/registry_manager.h"

#include <utility>

#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"
#include "overhub/store/acknowledgements.h"

namespace {

std::string countText(const OBGui::KeyList& keys) {
  return std::to_string(keys.size()) + " records";
}

// Clients put their id into uploads narrowed to 32 bits, so one of 2^31 and above comes as another number.
std::int64_t asUploaded(std::int64_t clientId) {
  return static_cast<std::int32_t>(clientId);
}

Answer unknownId(std::int64_t claimed, const std::string& client, std::int64_t idOnFile) {
  return Answer::refused("unknown client id " + std::to_string(claimed) + ": " + client + " is client " +
                         std::to_string(idOnFile));
}

// A secret that the server's key does not open cannot be handed out, nor may the batch go without it.
CWmError requireReadable(const std::string& list, const OBGui::KeyList& keys) {
  for (const OBGui::RegistryKeyInfo& key : keys) {
    if (!key.encryptedValue->isUnreadable()) continue;
    return {kLqErrFile, "the batch of " + list + " cannot be handed out: its secret " + key.keyPath.get() +
                            " " + key.valueName.get() + " was protected with another key; set it anew"};
  }
  return {};
}

// The reply to a request for `list`, which is a client's name or the static list. `expectedId`, if not null,
// must be the id on file.
Answer replyWithBatch(const DataStore& store, const std::string& list, const std::int64_t* expectedId) {
  auto batch = std::make_unique<OBGui::RegistryTaskResp>();
  CWmError error = store.readBatch(list, *batch);
  if (!error.IsError()) error = requireReadable(list, batch->keys);
  if (error.IsError()) {
    ObEvent().Error("registryManager", "%s", error.AsString());
    return Answer::refused("the server cannot read the batch of " + list +
                           "; its log tells why, and somebody there has to mend the file");
  }
  const std::int64_t idOnFile = batch->client->clientId;
  if (expectedId != nullptr && *expectedId != idOnFile) return unknownId(*expectedId, list, idOnFile);
  batch->taskStatus = OBGui::kTaskSuccess;
  batch->keys.edit();
  std::string summary = countText(batch->keys);
  return Answer::withReply(std::move(batch), std::move(summary));
}

Answer answerBatchRequest(const DataStore& store, const std::string& client, const CNMessageBase& message) {
  const std::int64_t id = messageAs<OBGui::RegistryTaskReq>(&message)->client->clientId;
  return replyWithBatch(store, client, &id);
}

Answer answerStaticRequest(const DataStore& store, const std::string&, const CNMessageBase&) {
  return replyWithBatch(store, DataStore::kStaticList, nullptr);
}

Answer acknowledged(const DataStore& store, const std::string& client,
                    const OBGui::RegistryTaskResp& response) {
  const CWmError error = recordAcknowledgement(store, client, response.client->clientId, response.taskStatus);
  if (error.IsError()) {
    ObEvent().Error("registryManager", "%s", error.AsString());
    return Answer::refused("the server cannot record the acknowledgement; its log tells why");
  }
  return Answer::withoutReply(response.taskStatus.get() == OBGui::kTaskSuccess ? "acknowledged: applied"
                                                                               : "acknowledged: failed");
}

Answer answerUpload(const DataStore& store, const std::string& client,
                    const OBGui::RegistryTaskResp& upload) {
  OBGui::RegistryTaskResp batch;
  CWmError error = store.readBatch(client, batch);
  const std::int64_t idOnFile = batch.client->clientId;
  if (!error.IsError() && upload.client->clientId.get() != asUploaded(idOnFile))
    return unknownId(upload.client->clientId, client, idOnFile);
  if (!error.IsError()) error = store.writeUpload(client, upload);
  if (error.IsError()) ObEvent().Error("registryManager", "%s", error.AsString());

  auto verdict = std::make_unique<OBGui::RegistryTaskResp>();
  verdict->client = upload.client.get();
  verdict->taskStatus = OBGui::taskStatusOf(!error.IsError());
  return Answer::withReply(
      std::move(verdict), (error.IsError() ? "upload failed: " : "upload stored: ") + countText(upload.keys));
}

// What a response is, its task status tells.
Answer answerResponse(const DataStore& store, const std::string& client, const CNMessageBase& message) {
  const auto& response = *messageAs<OBGui::RegistryTaskResp>(&message);
  switch (response.taskStatus) {
    case OBGui::kTaskFailed:
    case OBGui::kTaskSuccess:
      return acknowledged(store, client, response);
    case OBGui::kTaskUpload:
      return answerUpload(store, client, response);
    default:
      return Answer::refused("a registry task response with task status " +
                             std::to_string(response.taskStatus) + " is not handled here");
  }
}

}  // namespace

std::span<const MessageHandler> registryManagerHandlers() {
  static constexpr MessageHandler kHandlers[] = {
      {OBGui::RegistryTaskReq::kTag, answerBatchRequest},
      {OBGui::RegistryStaticKeyReq::kTag, answerStaticRequest},
      {OBGui::RegistryTaskResp::kTag, answerResponse},
  };
  return kHandlers;
}
