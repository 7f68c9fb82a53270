// The command that registers a client: id, session key, join file, and last its file, which makes it known.
#include <cstdio>
#include <limits>

#include "common/join_file.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQClient.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/own_host.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/client_ids.h"

namespace {

// Chooses the id: the wanted one if it is free, otherwise the next. A wanted one may fill a gap.
int chooseId(ClientIds& ids, const NewClient& wanted, std::int64_t& id) {
  std::string skipped;
  CWmError error = ids.load(skipped);
  if (error.IsError()) return dataUnusable(error);
  if (!skipped.empty())
    complain(kExitOk, "not counted among the ids in use, since it cannot be read: " + skipped);
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
                     const std::string& joinPath) {
  CWmError error = file_access::replace(joinPath, programs::joinFileText(join));
  if (!error.IsError()) error = store.writeSessionKey(join.clientName, join.sessionKeyHex);
  if (!error.IsError()) error = ids.assign(join.clientId, join.clientName);
  OBGui::RegistryTaskResp batch;
  batch.client.edit().clientId = join.clientId;
  batch.keys.edit();
  if (!error.IsError()) error = store.writeBatch(join.clientName, batch);
  return error;
}

// The join file's contents, except for id and key; checks what it is made of.
int startJoin(const NewClient& wanted, programs::JoinFile& join) {
  join.clientName = wanted.name;
  join.serverName = wanted.serverName;
  join.serverHost = wanted.serverHost.empty() ? ownHostName() : wanted.serverHost;
  if (!programs::fitsJoinFile(join.serverHost) || !programs::fitsJoinFile(join.serverName)) {
    return complain(kExitUsage, "\"" + join.serverHost + "\" and \"" + join.serverName +
                                    "\" have to be a host name or address and a name; --server-host and "
                                    "--server-name set them");
  }
  if (!wanted.joinFile.empty() && file_access::exists(wanted.joinFile))
    return complain(kExitRefused, wanted.joinFile + " exists already; choose another --join-file");
  join.sessionKeyHex = newSessionKeyHex();
  return kExitOk;
}

std::string joinPathOf(const DataStore& store, const NewClient& wanted) {
  return wanted.joinFile.empty() ? store.joinFile(wanted.name) : wanted.joinFile;
}

void printNextSteps(const programs::JoinFile& join, const std::string& joinPath) {
  std::printf(
      "client %s has the id %lld; its join file is %s\n"
      "Copy that file to the client's machine in a way that nobody else can read, run there\n"
      "  lqhost join FILE\n"
      "and delete both copies: the file holds the client's session key.\n",
      join.clientName.c_str(), static_cast<long long>(join.clientId), joinPath.c_str());
}

}  // namespace

int addClient(const DataStore& store, const NewClient& wanted) {
  if (!DataStore::isClientName(wanted.name)) {
    return complain(kExitUsage, "\"" + wanted.name +
                                    "\" cannot be a client's name: 1 to 64 characters of A-Z a-z 0-9 . _ - "
                                    "without a dot at the start");
  }
  programs::JoinFile join;
  int exitCode = startJoin(wanted, join);
  if (exitCode != kExitOk) return exitCode;

  CWmError error = store.prepare();
  file_access::Lock lock;
  if (!error.IsError()) error = store.lockForChange(lock);
  if (error.IsError()) return dataUnusable(error);
  if (store.hasClient(wanted.name)) {
    return complain(kExitRefused, "there is a client \"" + wanted.name + "\" in " + store.directory() +
                                      " already; choose another name, or give this one a new key with "
                                      "renew-client");
  }
  ClientIds ids(store);
  exitCode = chooseId(ids, wanted, join.clientId);
  if (exitCode != kExitOk) return exitCode;
  error = writeClient(store, ids, join, joinPathOf(store, wanted));
  if (error.IsError()) return dataUnusable(error);
  printNextSteps(join, joinPathOf(store, wanted));
  return kExitOk;
}

int renewClient(const DataStore& store, const NewClient& wanted) {
  if (!store.hasClient(wanted.name)) return unknownClient(store, wanted.name);
  programs::JoinFile join;
  const int exitCode = startJoin(wanted, join);
  if (exitCode != kExitOk) return exitCode;

  file_access::Lock lock;
  OBGui::RegistryTaskResp batch;
  CWmError error = store.lockForChange(lock);
  if (!error.IsError()) error = store.readBatch(wanted.name, batch);
  join.clientId = batch.client->clientId;
  if (!error.IsError()) error = file_access::replace(joinPathOf(store, wanted), programs::joinFileText(join));
  if (!error.IsError()) error = store.writeSessionKey(wanted.name, join.sessionKeyHex);
  if (error.IsError()) return dataUnusable(error);
  printNextSteps(join, joinPathOf(store, wanted));
  return kExitOk;
}
