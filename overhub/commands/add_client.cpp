// `overhub add-client`: registers a client: id, session key, join file, last its file, which makes it known.
#include <limits>
#include <memory>
#include <optional>

#include "lqregistry/LQClient.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/join_hand_over.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/client_ids.h"

namespace {

struct AddClient {
  std::string name;
  std::optional<std::int64_t> id;  // otherwise the highest handed out plus 1
  JoinHandOver handOver;
};

// Chooses the id: the wanted one if it is free, otherwise the next. A wanted one may fill a gap.
int chooseId(ClientIds& ids, const AddClient& wanted, std::int64_t& id) {
  std::string skipped;
  const CWmError error = ids.load(skipped);
  if (error.IsError()) return dataUnusable(error);
  if (!skipped.empty()) warn("not counted among the ids in use, since it cannot be read: " + skipped);
  if (!wanted.id) {
    if (ids.highest() == std::numeric_limits<std::int64_t>::max())
      return complain(kExitRefused, "the highest id is in use; choose a free one with --id");
    id = ids.highest() + 1;
    return kExitOk;
  }
  id = *wanted.id;
  if (static_cast<std::uint64_t>(id) == kServerClientId)
    return complain(kExitRefused, "the id " + std::to_string(id) + " is the management server's own");
  const std::string owner = ids.owner(id);
  if (!owner.empty())
    return complain(kExitRefused, "client " + owner + " has the id " + std::to_string(id) + " already");
  return kExitOk;
}

// Takes the id for the client and writes what makes it one.
CWmError writeClient(const DataStore& store, ClientIds& ids, const programs::JoinFile& join,
                     const JoinHandOver& handOver) {
  CWmError error = handOver.write(store, join);
  if (!error.IsError()) error = store.writeSessionKey(join.clientName, join.sessionKeyHex);
  if (!error.IsError()) error = ids.assign(join.clientId, join.clientName);
  OBGui::RegistryTaskResp batch;
  batch.client.edit().clientId = join.clientId;
  batch.keys.edit();
  if (!error.IsError()) error = store.writeBatch(join.clientName, batch);
  return error;
}

int addClient(const DataStore& store, const AddClient& wanted) {
  if (!DataStore::isClientName(wanted.name)) {
    return complain(kExitUsage, "\"" + wanted.name +
                                    "\" cannot be a client's name: 1 to 64 characters of A-Z a-z 0-9 . _ - "
                                    "without a dot at the start");
  }
  programs::JoinFile join;
  if (const int exitCode = wanted.handOver.begin(wanted.name, join); exitCode != kExitOk) return exitCode;

  CWmError error = store.prepare();
  programs::FileLock lock;
  if (!error.IsError()) error = store.lockForChange(lock);
  if (error.IsError()) return dataUnusable(error);
  if (store.hasClient(wanted.name)) {
    return complain(kExitRefused, "there is a client \"" + wanted.name + "\" in " + store.directory() +
                                      " already; choose another name, or give this one a new key with "
                                      "renew-client");
  }
  ClientIds ids(store);
  if (const int exitCode = chooseId(ids, wanted, join.clientId); exitCode != kExitOk) return exitCode;
  error = writeClient(store, ids, join, wanted.handOver);
  if (error.IsError()) return dataUnusable(error);
  wanted.handOver.printNextSteps(store, join);
  return kExitOk;
}

}  // namespace

void addAddClient(programs::CommandLine& line, const std::string& data) {
  const auto wanted = std::make_shared<AddClient>();
  auto options = line.add("add-client", "Register a client and write its join file",
                          [&data, wanted] { return addClient(DataStore(data), *wanted); });
  options.required("NAME", wanted->name, "The client's name: letters, digits, . _ -")
      .option("--id N", wanted->id, 1, "Its id; otherwise the highest handed out plus 1");
  wanted->handOver.describe(options);
}
