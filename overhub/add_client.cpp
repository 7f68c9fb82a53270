// The command that registers a client: id, session key, join file, and last its file, which makes it known.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

#include "overhub/commands.h"
#include "overhub/exit_codes.h"
#include "overhub/join_file.h"
#include "platform/CLqNetwork.h"

namespace {

// Ids that are handed out start here; 1 is left to the server's own machine.
constexpr std::int64_t kFirstId = 2;
constexpr std::size_t kHostNameBuffer = 256;

std::string ownHostName() {
  std::array<char, kHostNameBuffer> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// Chooses the id: the wanted one if it is free, otherwise the next.
int chooseId(const DataStore& store, const NewClient& wanted, std::int64_t& id) {
  std::vector<std::string> names;
  CWmError error = store.clientNames(names);
  std::int64_t highest = kFirstId - 1;
  for (const std::string& name : names) {
    OBGui::RegistryTaskResp batch;
    if (!error.IsError()) error = store.readBatch(name, batch);
    if (error.IsError()) break;
    const std::int64_t taken = batch.client->clientId;
    highest = std::max(highest, taken);
    if (wanted.id && *wanted.id == taken)
      return complain(kExitRefused, "client " + name + " has the id " + std::to_string(taken) + " already");
  }
  if (error.IsError()) return complain(kExitDataUnusable, error.AsString());
  if (!wanted.id && highest == std::numeric_limits<std::int64_t>::max())
    return complain(kExitRefused, "the highest id is in use; choose a free one with --id");
  id = wanted.id ? *wanted.id : highest + 1;
  return kExitOk;
}

CWmError writeClient(const DataStore& store, const JoinFile& join, const std::string& joinPath) {
  CWmError error = file_access::replace(joinPath, joinFileText(join));
  if (!error.IsError()) error = store.writeSessionKey(join.clientName, join.sessionKeyHex);
  OBGui::RegistryTaskResp batch;
  batch.client.edit().clientId = join.clientId;
  batch.keys.edit();
  if (!error.IsError()) error = store.writeBatch(join.clientName, batch);
  return error;
}

void printNextSteps(const JoinFile& join, const std::string& joinPath) {
  std::printf(
      "client %s has the id %lld; its join file is %s\n"
      "Copy that file to the client's machine in a way that nobody else can read, run there\n"
      "  lqhost join FILE\n"
      "and delete both copies: the file holds the client's session key.\n",
      join.clientName.c_str(), static_cast<long long>(join.clientId), joinPath.c_str());
}

}  // namespace

int addClient(const DataStore& store, const NewClient& wanted) {
  JoinFile join;
  join.clientName = wanted.name;
  join.serverName = wanted.serverName;
  join.serverHost = wanted.serverHost.empty() ? ownHostName() : wanted.serverHost;
  if (!DataStore::isClientName(wanted.name))
    return complain(kExitUsage, "\"" + wanted.name +
                                    "\" cannot be a client's name: 1 to 64 characters of A-Z a-z 0-9 . _ - "
                                    "without a dot at the start");
  if (!fitsJoinFile(join.serverHost) || !fitsJoinFile(join.serverName))
    return complain(kExitUsage, "\"" + join.serverHost + "\" and \"" + join.serverName +
                                    "\" have to be a host name or address and a name; --server-host and "
                                    "--server-name set them");

  CWmError error = store.prepare();
  file_access::Lock lock;
  if (!error.IsError()) error = store.lockForChange(lock);
  if (error.IsError()) return complain(kExitDataUnusable, error.AsString());
  if (store.hasClient(wanted.name))
    return complain(kExitRefused, "there is a client \"" + wanted.name + "\" in " + store.directory() +
                                      " already; choose another name");
  if (!wanted.joinFile.empty() && file_access::exists(wanted.joinFile))
    return complain(kExitRefused, wanted.joinFile + " exists already; choose another --join-file");
  const int exitCode = chooseId(store, wanted, join.clientId);
  if (exitCode != kExitOk) return exitCode;

  join.sessionKeyHex = newSessionKeyHex();
  const std::string joinPath = wanted.joinFile.empty() ? store.joinFile(wanted.name) : wanted.joinFile;
  error = writeClient(store, join, joinPath);
  if (error.IsError()) return complain(kExitDataUnusable, error.AsString());
  printNextSteps(join, joinPath);
  return kExitOk;
}
