// `overhub clients`: the clients, and what each last said of its batch.
#include "overhub/commands/client_table.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/store/acknowledgements.h"

namespace {

int clients(const DataStore& store) {
  return printClients(store, {"NAME", "ID", "RECORDS", "LAST ACKNOWLEDGEMENT"},
                      [&store](const std::string& client, std::vector<std::string>& cells) {
                        OBGui::RegistryTaskResp batch;
                        CWmError error = store.readBatch(client, batch);
                        if (error.IsError()) return error;
                        Acknowledgement last;
                        error = lastAcknowledgement(store, client, last);
                        cells = {std::to_string(batch.client->clientId.get()),
                                 std::to_string(batch.keys->size()),
                                 last.time.empty() ? "never" : last.time + " " + last.outcome};
                        return error;
                      });
}

}  // namespace

void addClients(programs::CommandLine& line, const std::string& data) {
  line.add("clients", "List the clients", onExisting(data, &clients));
}
