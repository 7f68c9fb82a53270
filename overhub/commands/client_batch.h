// The batch of a client, or the static list, as commands look at it and change it.
#pragma once

#include <functional>
#include <string>

#include "lqregistry/OBGui.h"
#include "overhub/store/data_store.h"

// `client` is a client's name or DataStore::kStaticList. kExitOk and the batch, or the exit code once it has
// been said why there is none.
[[nodiscard]] int readBatch(const DataStore& store, const std::string& client,
                            OBGui::RegistryTaskResp& batch);

// Reads a batch, lets `edit` change it and writes it back, with nobody else doing so meanwhile. `edit`
// returns an exit code; only with kExitOk is anything written.
[[nodiscard]] int editBatch(const DataStore& store, const std::string& client,
                            const std::function<int(OBGui::KeyList&)>& edit);
