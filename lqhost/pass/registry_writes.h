// What a pass really wrote to the registry, and what it could not write and why, as its thread's writes tell.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_map>

#include "lqregistry/LqWriteWatch.h"
#include "lqregistry/OBGui.h"

namespace host {

// A value's place, as reports tell it apart: the record's key path in its normal form, and its name.
std::string placeOf(const std::string& keyPath, const std::string& valueName);
// The place that applying the record writes to: a record that names a sub-key is about that key.
std::string writtenPlaceOf(const OBGui::RegistryKeyInfo& record);

struct RegistryWrites {
  struct Failure {
    lqregistry::WriteFault fault = lqregistry::WriteFault::kOther;
    std::string reason;
  };

  // What a place that was changed held before the first change; nothing where nothing was. Of a value that is
  // secret by itself, the empty text.
  std::unordered_map<std::string, std::optional<std::string>> changed;
  std::map<std::string, Failure> failed;
  std::optional<Failure> lost;  // the batch could not be put on disk: none of the changes holds
};

// Opened and closed on the thread that runs the pass.
class WritesWatch {
 public:
  WritesWatch();

  const RegistryWrites& writes() const { return writes_; }
  RegistryWrites take() { return std::move(writes_); }

 private:
  void onEvent(const lqregistry::WriteEvent& event);

  RegistryWrites writes_;
  lqregistry::WriteWatch watch_;
};

}  // namespace host
