// `overhub add-client`: registers a client: id, session key, join file, last its file, which makes it known.
#include <memory>
#include <optional>

#include "overhub/commands/commands.h"
#include "overhub/commands/join_hand_over.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/client_ids.h"
#include "overhub/store/client_name.h"

namespace {

struct AddClient {
  std::string name;
  std::optional<std::int64_t> id;  // otherwise the highest handed out plus 1
  JoinHandOver handOver;
};

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
  if (!isClientName(wanted.name)) {
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
  std::string skipped;
  error = ids.load(skipped);
  if (error.IsError()) return dataUnusable(error);
  if (!skipped.empty()) warn("not counted among the ids in use, since it cannot be read: " + skipped);
  error = ids.choose(wanted.id, join.clientId);
  if (error.IsError()) return complain(kExitRefused, error.AsString());
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
