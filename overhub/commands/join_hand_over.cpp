#include "overhub/commands/join_hand_over.h"
#include "common/host_name.h"

#include "lqregistry/CLqNetwork.h"
#include "overhub/commands/reporting.h"

void JoinHandOver::describe(programs::CommandLine::Options& options) {
  options
      .option("--server-host HOST", serverHost_,
              "Under which name or address the client reaches this server; otherwise its host name")
      .option("--server-name NAME", serverName_, "The server's own client name")
      .option("--join-file FILE", file_, "Where to write the join file; otherwise DIR/join/NAME.join");
}

int JoinHandOver::begin(const std::string& client, programs::JoinFile& join) const {
  join.clientName = client;
  join.serverName = serverName_;
  join.serverHost = serverHost_.empty() ? programs::ownHostName() : serverHost_;
  if (!programs::isAcceptableHostName(join.serverHost) || !programs::isAcceptableHostName(join.serverName)) {
    return complain(kExitUsage, "\"" + join.serverHost + "\" and \"" + join.serverName +
                                    "\" have to be a host name or address and a name; --server-host and "
                                    "--server-name set them");
  }
  if (!file_.empty() && file_access::exists(file_))
    return complain(kExitRefused, file_ + " exists already; choose another --join-file");
  join.sessionKeyHex = newSessionKeyHex();
  return kExitOk;
}

CWmError JoinHandOver::write(const DataStore& store, const programs::JoinFile& join) const {
  return file_access::replace(place(store, join), programs::joinFileText(join));
}

void JoinHandOver::printNextSteps(const DataStore& store, const programs::JoinFile& join) const {
  print("client " + join.clientName + " has the id " + std::to_string(join.clientId) + "; its join file is " +
        place(store, join) +
        "\n"
        "Copy that file to the client's machine in a way that nobody else can read, run there\n"
        "  lqhost join FILE\n"
        "and delete both copies: the file holds the client's session key.\n");
}

std::string JoinHandOver::place(const DataStore& store, const programs::JoinFile& join) const {
  return file_.empty() ? store.joinFile(join.clientName) : file_;
}
