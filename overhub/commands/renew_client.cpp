// `overhub renew-client`: a new session key and join file for a client; its id and batch stay, its old key is
// worth nothing from now on.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/join_hand_over.h"
#include "overhub/commands/reporting.h"

namespace {

int renewClient(const DataStore& store, const std::string& client, const JoinHandOver& handOver) {
  if (!store.hasClient(client)) return unknownClient(store, client);
  programs::JoinFile join;
  if (const int exitCode = handOver.begin(client, join); exitCode != kExitOk) return exitCode;

  programs::FileLock lock;
  OBGui::RegistryTaskResp batch;
  CWmError error = store.lockForChange(lock);
  if (!error.IsError()) error = store.readBatch(client, batch);
  join.clientId = batch.client->clientId;
  if (!error.IsError()) error = handOver.write(store, join);
  if (!error.IsError()) error = store.writeSessionKey(client, join.sessionKeyHex);
  if (error.IsError()) return dataUnusable(error);
  handOver.printNextSteps(store, join);
  return kExitOk;
}

}  // namespace

void addRenewClient(programs::CommandLine& line, const std::string& data) {
  const auto client = std::make_shared<std::string>();
  const auto handOver = std::make_shared<JoinHandOver>();
  auto options = line.add("renew-client", "Give a client a new session key and join file",
                          onExisting(data, [client, handOver](const DataStore& store) {
                            return renewClient(store, *client, *handOver);
                          }));
  options.required("NAME", *client, "The client's name; its id and its batch stay");
  handOver->describe(options);
}
