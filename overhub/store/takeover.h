// What is taken over from a data directory of the version before, into a store that holds nothing yet.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "lqregistry/OBGui.h"
#include "lqregistry/pstring.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/clients.h"
#include "overhub/store/setting.h"
#include "overhub/store/store.h"

struct FormerClient {
  Client client;
  pstring sessionKey;  // 64 hexadecimal digits
  OBGui::KeyList records;
  std::string address;
  std::vector<Acknowledgement> acknowledgements;  // oldest first
  std::optional<OBGui::RegistryTaskResp> upload;
  std::int64_t uploadTime = 0;
};

struct FormerStore {
  std::vector<FormerClient> clients;
  OBGui::KeyList staticList;
  std::int64_t highestId = 0;
};

// Who takes it over, and by which command.
struct TakeoverNote {
  std::string who;
  std::string command;
};

// All of it in one transaction, as the store's first revision. An error with kLqErrRequestRefused for a store
// that holds something. What the clients' caches hold is not known.
CWmError takeOver(const Store& store, const FormerStore& former, const TakeoverNote& note);
