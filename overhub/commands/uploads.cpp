// `overhub uploads`: what clients have uploaded of their registries.
#include <algorithm>
#include <memory>

#include "common/text_table.h"
#include "lqregistry/UtcText.h"
#include "overhub/commands/client_table.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace {

constexpr const char* kFooter = R"(Examples:
  overhub uploads
  overhub uploads web-1
  overhub uploads web-1 --out web-1.xml    (for "lqreg import" on a machine)
Protected values are hidden in the table.)";

CWmError describeUpload(const DataStore& store, const std::string& client, std::vector<std::string>& cells) {
  const std::string file = store.uploadFile(client);
  if (!file_access::exists(file)) return {};
  std::uintmax_t bytes = 0;
  std::time_t time = 0;
  OBGui::RegistryTaskResp upload;
  CWmError error = file_access::status(file, bytes, time);
  if (!error.IsError()) error = store.readUpload(client, upload);
  if (error.IsError()) return error;
  const auto all = static_cast<std::ptrdiff_t>(upload.keys->size());
  const std::ptrdiff_t keys = std::count_if(upload.keys->begin(), upload.keys->end(), isKey);
  cells = {lqtext::utcText(time), std::to_string(keys), std::to_string(all - keys), std::to_string(bytes)};
  return {};
}

int listUploads(const DataStore& store) {
  return printClients(store, {"CLIENT", "TIME", "KEYS", "VALUES", "BYTES"},
                      [&store](const std::string& client, std::vector<std::string>& cells) {
                        return describeUpload(store, client, cells);
                      });
}

int showUpload(const DataStore& store, const std::string& client) {
  OBGui::RegistryTaskResp upload;
  const CWmError error = store.readUpload(client, upload);
  if (error.IsError()) return dataUnusable(error);
  programs::TextTable table({"KEY", "NAME", "VALUE"});
  for (const OBGui::RegistryKeyInfo& record : upload.keys.get()) {
    table.addRow({keyOf(record), isKey(record) ? "" : record.valueName.get(),
                  isSecret(record) || isSecretValue(record.valueName.get(), record.value.get())
                      ? kHiddenSecret
                      : record.value.get()});
  }
  print(table.text());
  return kExitOk;
}

// To a file that is not there yet.
int exportUpload(const DataStore& store, const std::string& client, const std::string& file) {
  std::string text;
  CWmError error = file_access::readWhole(store.uploadFile(client), text);
  if (error.IsError()) return dataUnusable(error);
  error = file_access::create(file, text);
  return error.IsError() ? complain(kExitRefused, std::string(error.AsString()) +
                                                      "; --out takes a file that is not there yet")
                         : kExitOk;
}

int uploads(const DataStore& store, const std::string& client, const std::string& file) {
  if (client.empty()) return listUploads(store);
  if (!store.hasClient(client)) return unknownClient(store, client);
  if (!file_access::exists(store.uploadFile(client)))
    return complain(kExitRefused,
                    "client " + client + " has uploaded nothing yet; \"lqhost upload\" on its machine does");
  return file.empty() ? showUpload(store, client) : exportUpload(store, client, file);
}

}  // namespace

void addUploads(programs::CommandLine& line, const std::string& data) {
  const auto client = std::make_shared<std::string>();
  const auto file = std::make_shared<std::string>();
  line.add(
          "uploads", "List what clients have uploaded of their registries",
          onExisting(data, [client, file](const DataStore& store) { return uploads(store, *client, *file); }))
      .option("CLIENT", *client, "Show what this one has uploaded")
      .option("--out FILE", *file, "Write it to this file instead, which must not be there yet")
      .needs("CLIENT")
      .footer(kFooter);
}
