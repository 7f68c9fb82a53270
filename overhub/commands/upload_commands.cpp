#include "overhub/commands/upload_commands.h"

#include <strings.h>

#include <algorithm>

#include "common/machine_identity.h"
#include "common/text_table.h"
#include "common/utc_text.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/batch_edit.h"

namespace {

bool isKey(const OBGui::RegistryKeyInfo& record) {
  return strcasecmp(record.valueType->c_str(), kTypeKey) == 0;
}

// A key's record names its parent and itself.
std::string keyOf(const OBGui::RegistryKeyInfo& record) {
  if (!isKey(record)) return record.keyPath.get();
  return record.keyPath->empty() ? record.valueName.get()
                                 : record.keyPath.get() + "/" + record.valueName.get();
}

// Nothing, or why the upload's row is not whole.
std::string uploadRow(const DataStore& store, const std::string& client, programs::TextTable& table) {
  std::uintmax_t bytes = 0;
  std::time_t time = 0;
  OBGui::RegistryTaskResp upload;
  CWmError error = file_access::status(store.uploadFile(client), bytes, time);
  if (!error.IsError()) error = store.readUpload(client, upload);
  if (error.IsError()) {
    table.addRow({client, "?", "?", "?", "?"});
    return error.AsString();
  }
  const auto all = static_cast<std::ptrdiff_t>(upload.keys->size());
  const std::ptrdiff_t keys = std::count_if(upload.keys->begin(), upload.keys->end(), isKey);
  table.addRow(
      {client, utcText(time), std::to_string(keys), std::to_string(all - keys), std::to_string(bytes)});
  return {};
}

// Whether there is an upload of the client; kExitOk, or the exit code once it has been said that there is
// none.
int checkUpload(const DataStore& store, const std::string& client) {
  if (!store.hasClient(client)) return unknownClient(store, client);
  if (file_access::exists(store.uploadFile(client))) return kExitOk;
  return complain(kExitRefused,
                  "client " + client + " has uploaded nothing yet; \"lqhost upload\" on its machine does");
}

}  // namespace

int listUploads(const DataStore& store) {
  std::vector<std::string> names;
  CWmError error = store.clientNames(names);
  if (error.IsError()) return dataUnusable(error);
  programs::TextTable table({"CLIENT", "TIME", "KEYS", "VALUES", "BYTES"});
  std::vector<std::string> faults;
  for (const std::string& name : names) {
    if (!file_access::exists(store.uploadFile(name))) continue;
    const std::string fault = uploadRow(store, name, table);
    if (!fault.empty()) faults.push_back(fault);
  }
  print(table.text());
  for (const std::string& fault : faults) complain(kExitDataUnusable, fault);
  return faults.empty() ? kExitOk : kExitDataUnusable;
}

int showUpload(const DataStore& store, const std::string& client) {
  const int exitCode = checkUpload(store, client);
  if (exitCode != kExitOk) return exitCode;
  OBGui::RegistryTaskResp upload;
  CWmError error = store.readUpload(client, upload);
  if (error.IsError()) return dataUnusable(error);
  programs::TextTable table({"KEY", "NAME", "VALUE"});
  for (const OBGui::RegistryKeyInfo& record : upload.keys.get()) {
    table.addRow({keyOf(record), isKey(record) ? "" : record.valueName.get(),
                  isSecret(record) || programs::isSecretValue(record.valueName.get(), record.value.get())
                      ? kHiddenSecret
                      : record.value.get()});
  }
  print(table.text());
  return kExitOk;
}

int exportUpload(const DataStore& store, const std::string& client, const std::string& file) {
  const int exitCode = checkUpload(store, client);
  if (exitCode != kExitOk) return exitCode;
  std::string text;
  CWmError error = file_access::readWhole(store.uploadFile(client), text);
  if (error.IsError()) return dataUnusable(error);
  error = file_access::create(file, text);
  return error.IsError() ? complain(kExitRefused, std::string(error.AsString()) +
                                                      "; --out takes a file that is not there yet")
                         : kExitOk;
}
