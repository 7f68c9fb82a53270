// The one watcher of a pass. It sees what went over the wire on the thread of the pass; what that makes of
// the pass is decided in pass_outcome.h.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lqhost/pass/batch_facts.h"
#include "lqhost/pass/current_value.h"
#include "lqhost/pass/pass_outcome.h"
#include "lqhost/pass/registry_writes.h"
#include "lqhost/pass/wire_watch.h"
#include "lqregistry/OBGui.h"

namespace host {

// What the records of a batch were before they were applied. Reading them costs as much again as applying
// them, so only a command with a report to print asks for it.
struct PassDetails {
  OBGui::KeyList batch;              // as it arrived
  std::vector<CurrentValue> before;  // for each record
  RegistryWrites writes;             // of the pass
};

// Called with a batch that has come, before anybody applies it: why it must not be; empty when it may.
using OnArrival = std::function<std::string(const OBGui::KeyList&)>;

// Opened and closed on the thread that runs the pass.
class PassWatch {
 public:
  // Fills `details` when a batch comes, unless it is null.
  explicit PassWatch(PassDetails* details, OnArrival onArrival = {});

  // What was seen on the wire so far.
  const PassResult& result() const { return result_; }
  // Of the batch that came, if one did.
  const std::optional<BatchFacts>& facts() const { return facts_; }
  const RegistryWrites& writes() const { return writes_.writes(); }

 private:
  void onEvent(const WireWatch::Event& event, const OBGui::RegistryTaskResp* batch);
  void onBatch(const WireWatch::Event& event, const OBGui::RegistryTaskResp& batch);

  PassDetails* details_;
  OnArrival onArrival_;
  PassResult result_;
  std::optional<BatchFacts> facts_;
  WritesWatch writes_;
  WireWatch watch_;
};

}  // namespace host
