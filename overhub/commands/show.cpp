// `overhub show`: a client's batch, secrets hidden.
#include <memory>

#include "common/text_table.h"
#include "overhub/commands/client_batch.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
#include "records/secret_values.h"

namespace {

std::string flagsOf(const OBGui::RegistryKeyInfo& key) {
  const bool isDisabled = key.enabledFlag.isSet() && key.enabledFlag == 0;
  if (key.deleteFlag == 0) return isDisabled ? "disabled" : "";
  return isDisabled ? "delete, disabled" : "delete";
}

int show(const DataStore& store, const std::string& client) {
  OBGui::RegistryTaskResp batch;
  if (const int exitCode = readBatch(store, client, batch); exitCode != kExitOk) return exitCode;
  programs::TextTable table({"PATH", "NAME", "TYPE", "VALUE", "FLAGS"});
  for (const OBGui::RegistryKeyInfo& key : batch.keys.get())
    table.addRow({key.keyPath, key.valueName, key.valueType, isSecret(key) ? kHiddenSecret : key.value.get(),
                  flagsOf(key)});
  print(table.text());
  return kExitOk;
}

}  // namespace

void addShow(programs::CommandLine& line, const std::string& data) {
  const auto client = std::make_shared<std::string>();
  line.add("show", "Print a client's batch, secrets hidden",
           onExisting(data, [client](const DataStore& store) { return show(store, *client); }))
      .required("CLIENT", *client, "The client's name, or @static");
}
