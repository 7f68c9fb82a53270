#include "overhub/commands/client_batch.h"

#include "overhub/commands/reporting.h"

int readBatch(const DataStore& store, const std::string& client, OBGui::RegistryTaskResp& batch) {
  if (client != DataStore::kStaticList && !store.hasClient(client)) return unknownClient(store, client);
  const CWmError error = store.readBatch(client, batch);
  return error.IsError() ? dataUnusable(error) : kExitOk;
}

int editBatch(const DataStore& store, const std::string& client,
              const std::function<int(OBGui::KeyList&)>& edit) {
  programs::FileLock lock;
  CWmError error = store.lockForChange(lock);
  if (error.IsError()) return dataUnusable(error);
  OBGui::RegistryTaskResp batch;
  if (const int exitCode = readBatch(store, client, batch); exitCode != kExitOk) return exitCode;
  if (const int exitCode = edit(batch.keys.edit()); exitCode != kExitOk) return exitCode;
  error = store.writeBatch(client, batch);
  return error.IsError() ? dataUnusable(error) : kExitOk;
}
