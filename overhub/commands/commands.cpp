#include "overhub/commands/commands.h"

#include <algorithm>

#include "common/text_table.h"
#include "lqregistry/LqRegistryFile.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/acknowledgements.h"

namespace {

bool isKnown(const DataStore& store, const std::string& client) {
  return client == DataStore::kStaticList || store.hasClient(client);
}

std::string flagsOf(const OBGui::RegistryKeyInfo& key) {
  const bool isDisabled = key.enabledFlag.isSet() && key.enabledFlag == 0;
  if (key.deleteFlag == 0) return isDisabled ? "disabled" : "";
  return isDisabled ? "delete, disabled" : "delete";
}

std::string clientRow(const DataStore& store, const std::string& name, programs::TextTable& table) {
  OBGui::RegistryTaskResp batch;
  Acknowledgement last;
  CWmError error = store.readBatch(name, batch);
  if (error.IsError()) {
    table.addRow({name, "?", "?", "?"});
    return error.AsString();
  }
  error = lastAcknowledgement(store, name, last);
  table.addRow({name, std::to_string(batch.client->clientId.get()), std::to_string(batch.keys->size()),
                last.time.empty() ? "never" : last.time + " " + last.outcome});
  return error.AsString();
}

// Reads a batch, lets `edit` change it and writes it back, with nobody else doing so meanwhile. `edit` gives
// an exit code; only with kExitOk is anything written.
template <class Edit>
int editBatch(const DataStore& store, const std::string& client, Edit edit) {
  file_access::Lock lock;
  CWmError error = store.lockForChange(lock);
  if (error.IsError()) return dataUnusable(error);
  if (!isKnown(store, client)) return unknownClient(store, client);
  OBGui::RegistryTaskResp batch;
  error = store.readBatch(client, batch);
  if (error.IsError()) return dataUnusable(error);
  const int exitCode = edit(batch.keys.edit());
  if (exitCode != kExitOk) return exitCode;
  error = store.writeBatch(client, batch);
  return error.IsError() ? dataUnusable(error) : kExitOk;
}

}  // namespace

int changeRecord(const DataStore& store, const std::string& client, const RecordChange& change) {
  if (change.name.empty() || change.name.size() > lqregistry::kMaxNameBytes ||
      change.path.size() > lqregistry::kMaxPathBytes) {
    return complain(kExitUsage, "a value's name has 1 to " + std::to_string(lqregistry::kMaxNameBytes) +
                                    " bytes, a key's path at most " +
                                    std::to_string(lqregistry::kMaxPathBytes));
  }
  return editBatch(store, client, [&](OBGui::KeyList& keys) {
    setRecord(keys, change);
    return kExitOk;
  });
}

int removeRecord(const DataStore& store, const std::string& client, const std::string& path,
                 const std::string& name) {
  return editBatch(store, client, [&](OBGui::KeyList& keys) {
    if (unsetRecord(keys, path, name)) return kExitOk;
    return complain(kExitRefused, "the batch of " + client + " has no record \"" + name + "\" in \"" + path +
                                      "\"; \"overhub show " + client + "\" lists those it has");
  });
}

int showBatch(const DataStore& store, const std::string& client) {
  if (!isKnown(store, client)) return unknownClient(store, client);
  OBGui::RegistryTaskResp batch;
  const CWmError error = store.readBatch(client, batch);
  if (error.IsError()) return dataUnusable(error);
  programs::TextTable table({"PATH", "NAME", "TYPE", "VALUE", "FLAGS"});
  for (const OBGui::RegistryKeyInfo& key : batch.keys.get())
    table.addRow({key.keyPath, key.valueName, key.valueType, isSecret(key) ? kHiddenSecret : key.value.get(),
                  flagsOf(key)});
  print(table.text());
  return kExitOk;
}

int listClients(const DataStore& store) {
  std::vector<std::string> names;
  const CWmError error = store.clientNames(names);
  if (error.IsError()) return dataUnusable(error);
  programs::TextTable table({"NAME", "ID", "RECORDS", "LAST ACKNOWLEDGEMENT"});
  std::vector<std::string> faults;
  for (const std::string& name : names) {
    const std::string fault = clientRow(store, name, table);
    if (!fault.empty()) faults.push_back(fault);
  }
  print(table.text());
  for (const std::string& fault : faults) complain(kExitDataUnusable, fault);
  return faults.empty() ? kExitOk : kExitDataUnusable;
}

int listAcknowledgements(const DataStore& store, const std::string& client) {
  std::vector<std::string> names{client};
  CWmError error;
  if (client.empty()) {
    error = store.clientNames(names);
  } else if (!store.hasClient(client)) {
    return unknownClient(store, client);
  }
  std::vector<Acknowledgement> list;
  for (const std::string& name : names)
    if (!error.IsError()) error = readAcknowledgements(store, name, list);
  if (error.IsError()) return dataUnusable(error);
  std::stable_sort(list.begin(), list.end(),
                   [](const Acknowledgement& a, const Acknowledgement& b) { return a.time < b.time; });
  programs::TextTable table({"TIME", "CLIENT", "OUTCOME"});
  for (const Acknowledgement& entry : list) table.addRow({entry.time, entry.client, entry.outcome});
  print(table.text());
  return kExitOk;
}
