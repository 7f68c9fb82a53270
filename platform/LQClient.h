// LQClient: the identity of a client of the management server.
//
// Names and ids come from the local registry (key "SOFTWARE/Velmor/Clients/<name>", value "nCLIENTID"), where
// `lqhost join` records them; they belong to the machine, not to an instance. Used by one thread at a time. A
// real platform library may ask the management server instead.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/LqExport.h"

class LQ_EXPORT LQClient {
 public:
  // A client by name. The other two arguments select look-ups that this layer does not have.
  LQClient(std::string name, bool, int) : name_(std::move(name)) {}

  // The client's numeric id into `id`: 0 on success; non-zero, with `id` unchanged, when the client is not
  // known. `context` must be null.
  int getClientId(std::uint64_t& id, const void* context) const;

  // Records a client's id on this machine; false when the registry could not be written.
  static bool recordClient(const std::string& name, std::uint64_t id);

 private:
  std::string name_;
};
