#include "overhub/server/registry_manager.h"

#include <utility>

#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/uploads.h"

namespace {

std::string countText(const OBGui::KeyList& keys) {
  return std::to_string(keys.size()) + " records";
}

Answer handedOut(HandOut& out) {
  if (!out.refusal.empty()) {
    ObEvent().Error("registryManager", "%s", out.refusal.c_str());
    return Answer::refused(out.refusal);
  }
  auto batch = std::make_unique<OBGui::RegistryTaskResp>(std::move(out.batch));
  std::string summary = countText(batch->keys);
  if (out.number != 0)
    summary += ", hand-out " + std::to_string(out.number) + " of revision " + std::to_string(out.revision);
  return Answer::withReply(std::move(batch), std::move(summary));
}

Answer answerBatchRequest(const Store& store, Caller& caller, const CNMessageBase& message) {
  HandOut out;
  const std::int64_t id = messageAs<OBGui::RegistryTaskReq>(&message)->client->clientId;
  const CWmError error = handOut(store, caller.client, id, out);
  if (error.IsError()) return Answer::ofStore(error, "hand out the batch of " + caller.client);
  if (out.number != 0) caller.handOut = out.number;
  return handedOut(out);
}

Answer answerStaticRequest(const Store& store, Caller& caller, const CNMessageBase&) {
  HandOut out;
  const CWmError error = handOutStaticList(store, caller.client, out);
  if (error.IsError()) return Answer::ofStore(error, "hand out the static list");
  caller.handOut = 0;
  return handedOut(out);
}

Answer acknowledged(const Store& store, const Caller& caller, const OBGui::RegistryTaskResp& response) {
  const CWmError error =
      acknowledge(store, caller.client, caller.handOut, response.client->clientId, response.taskStatus);
  if (error.IsError()) return Answer::ofStore(error, "record the acknowledgement");
  return Answer::withoutReply("acknowledged: " + outcomeText(response.taskStatus));
}

Answer answerUpload(const Store& store, const Caller& caller, const OBGui::RegistryTaskResp& upload) {
  const CWmError error = addUpload(store, caller.client, upload);
  if (error.GetCode() == kLqErrRequestRefused) return Answer::refused(error.AsString());
  if (error.IsError()) ObEvent().Error("registryManager", "%s", error.AsString());

  auto verdict = std::make_unique<OBGui::RegistryTaskResp>();
  verdict->client = upload.client.get();
  verdict->taskStatus = OBGui::taskStatusOf(!error.IsError());
  return Answer::withReply(
      std::move(verdict), (error.IsError() ? "upload failed: " : "upload stored: ") + countText(upload.keys));
}

// What a response is, its task status tells.
Answer answerResponse(const Store& store, Caller& caller, const CNMessageBase& message) {
  const auto& response = *messageAs<OBGui::RegistryTaskResp>(&message);
  switch (response.taskStatus) {
    case OBGui::kTaskFailed:
    case OBGui::kTaskSuccess:
      return acknowledged(store, caller, response);
    case OBGui::kTaskUpload:
      return answerUpload(store, caller, response);
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
