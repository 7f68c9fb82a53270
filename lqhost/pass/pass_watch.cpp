#include "lqhost/pass/pass_watch.h"

namespace host {

PassWatch::PassWatch(PassDetails* details, OnArrival onArrival)
    : details_(details),
      onArrival_(std::move(onArrival)),
      watch_([this](const WireWatch::Event& event, const OBGui::RegistryTaskResp* batch) {
        onEvent(event, batch);
      }) {}

void PassWatch::onEvent(const WireWatch::Event& event, const OBGui::RegistryTaskResp* batch) {
  using Kind = WireWatch::Event::Kind;
  switch (event.kind) {
    case Kind::kReceived:
      if (batch != nullptr) onBatch(event, *batch);
      break;
    case Kind::kSent:
      if (batch != nullptr) result_.acknowledgedAs = batch->taskStatus;
      break;
    case Kind::kRefused:
      if (result_.acknowledgedAs) result_.refusal = event.reason.empty() ? "no reason given" : event.reason;
      break;
    case Kind::kEnded:
      // The session that brought the batch ends in the same way, before anything is acknowledged.
      result_.isGoodbyeAnswered = result_.acknowledgedAs.has_value();
      break;
  }
}

void PassWatch::onBatch(const WireWatch::Event& event, const OBGui::RegistryTaskResp& batch) {
  if (onArrival_ && event.decline != nullptr) {
    result_.heldBack = onArrival_(batch.keys);
    if (!result_.heldBack.empty()) {
      *event.decline = result_.heldBack;
      return;
    }
  }
  result_.received = batch.keys->size();
  facts_ = factsOf(batch.keys);
  if (details_ == nullptr) return;
  details_->batch = batch.keys;
  details_->before = currentValues(batch.keys);
}

}  // namespace host
