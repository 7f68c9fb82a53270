// `overhub acks`: what clients have acknowledged.
#include <algorithm>
#include <memory>

#include "common/text_table.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/acknowledgements.h"

namespace {

// Of one client, or of all when `client` is empty.
int acks(const DataStore& store, const std::string& client) {
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

}  // namespace

void addAcks(programs::CommandLine& line, const std::string& data) {
  const auto client = std::make_shared<std::string>();
  line.add("acks", "List what clients have acknowledged, newest last",
           onExisting(data, [client](const DataStore& store) { return acks(store, *client); }))
      .option("CLIENT", *client, "One client only");
}
