// LQClient: the identity of a client of the management server.
//
// Names and ids come from the local registry (key "SOFTWARE/Velmor/Clients/<name>", value "nCLIENTID"), where
// `lqhost join` records them; they belong to the machine, not to an instance. The name of this machine stands
// for the client that the current instance has joined as, where no client of that name is recorded. Used by
// one thread at a time. A real platform library may ask the management server instead.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "lqregistry/LqExport.h"

// The id of the management server itself.
inline constexpr std::uint64_t kServerClientId = 2;

class LQ_EXPORT LQClient {
 public:
  // A client by name. The other two arguments select look-ups that this layer does not have.
  LQClient(std::string name, bool, int) : name_(std::move(name)) {}

  // A client by id. Only the management server's own id, kServerClientId, is of use.
  explicit LQClient(std::uint64_t id) : id_(id) {}

  // Puts the client's numeric id into `id`: 0 on success; non-zero, with `id` unchanged, when the client is
  // not known. `context` must be null.
  int getClientId(std::uint64_t& id, const void* context) const;

  // The text that Attach_RemoteDLL takes to reach this client: 0 and the server's target, as the current
  // instance knows it, for kServerClientId; non-zero, with `target` unchanged, when it is not known.
  int getNetworkHostnameMangled(std::string& target) const;

  // Records a client's id on this machine; false when the registry could not be written.
  static bool recordClient(const std::string& name, std::uint64_t id);

 private:
  std::string name_;
  std::uint64_t id_ = 0;
};
