#include "overhub/commands/client_table.h"

#include "common/text_table.h"
#include "overhub/commands/reporting.h"

int printClients(const DataStore& store, const std::vector<std::string>& header, const ClientRow& row) {
  std::vector<std::string> clients;
  if (const CWmError error = store.clientNames(clients); error.IsError()) return dataUnusable(error);
  programs::TextTable table(header);
  std::vector<std::string> faults;
  for (const std::string& client : clients) {
    std::vector<std::string> cells;
    const CWmError error = row(client, cells);
    if (error.IsError()) {
      faults.emplace_back(error.AsString());
      cells.resize(header.size() - 1, "?");
    }
    if (cells.empty()) continue;
    cells.insert(cells.begin(), client);
    table.addRow(cells);
  }
  print(table.text());
  for (const std::string& fault : faults) warn(fault);
  return faults.empty() ? kExitOk : kExitDataUnusable;
}
