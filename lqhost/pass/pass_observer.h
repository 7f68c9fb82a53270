// Watches one synchronisation from outside: which batch arrived and what the registry held before it was
// applied, which callbacks ran, what was acknowledged.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lqhost/pass/wire_watch.h"
#include "lqregistry/OBGui.h"

namespace host {

// What the registry holds for a record: the value's data, the empty text for a sub-key, nothing when absent.
using HeldValue = std::optional<std::string>;

HeldValue heldValue(const OBGui::RegistryKeyInfo& key);

struct CallbackRun {
  std::string keyPath;
  std::string valueName;
};

struct PassFacts {
  bool batchReceived = false;
  OBGui::KeyList batch;                      // as it arrived
  std::vector<HeldValue> before;             // for each record of the batch, before it was applied
  std::optional<std::int64_t> acknowledged;  // the taskStatus sent
  std::vector<CallbackRun> callbacks;
};

// One at a time in a process, on the thread that runs the pass.
class PassObserver {
 public:
  // Registers a change callback for each pair of key path and value name.
  explicit PassObserver(std::vector<std::pair<std::string, std::string>> watched);
  ~PassObserver();
  PassObserver(const PassObserver&) = delete;
  PassObserver& operator=(const PassObserver&) = delete;

  // Waits for the callbacks that the pass queued, then gives what was seen.
  PassFacts finish();

 private:
  std::vector<std::pair<std::string, std::string>> watched_;
  WireWatch watch_;
};

}  // namespace host
