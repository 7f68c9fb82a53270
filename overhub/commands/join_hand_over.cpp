#include "overhub/commands/join_hand_over.h"

#include <unistd.h>

#include <filesystem>
#include <map>

#include "common/host_name.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/file_access.h"

void JoinHandOver::describe(programs::CommandLine::Options options) {
  options
      .option("--server-host HOST", serverHost_,
              "Under which name or address the client reaches this server; otherwise its host name")
      .option("--server-name NAME", serverName_, "The server's own client name")
      .option("--join-file FILE", file_, "Where to write the join file; otherwise NAME.join in the directory")
      .option("--join-dir DIRECTORY", folder_, "The directory of join files; otherwise DIR/join")
      .excludes("--join-file");
}

CWmError JoinHandOver::begin(const Store& store, const std::string& client, programs::JoinFile& join) {
  join.clientName = client;
  join.serverName = serverName_;
  join.serverHost = serverHost_.empty() ? programs::ownHostName() : serverHost_;
  if (!programs::isAcceptableHostName(join.serverHost) || !programs::isAcceptableHostName(join.serverName)) {
    return {kLqErrArgument, "\"" + join.serverHost + "\" and \"" + join.serverName +
                                "\" have to be a host name or address and a name; --server-host and "
                                "--server-name set them"};
  }
  join.sessionKeyHex = newSessionKeyHex();
  // In the store's own directory an old one is replaced: it is of no use any more.
  const std::string file = place(store, client);
  const bool isOwn = file_.empty() && folder_.empty();
  if (!isOwn && file_access::exists(file))
    return {kLqErrRequestRefused, file + " exists already; choose another place for the join file"};
  if (!file_.empty()) {
    CWmError error = file_access::replace(file_, "");
    isFileMade_ = !error.IsError();
    return error;
  }
  return isOwn ? CWmError() : file_access::makeDirectory(folder_);
}

CWmError JoinHandOver::write(const Store& store, const programs::JoinFile& join) const {
  const CWmError error = file_access::replace(place(store, join.clientName), programs::joinFileText(join));
  if (!error.IsError()) return {};
  return {error.GetCode(), std::string(error.AsString()) +
                               "; the client is registered, and \"overhub renew-client " + join.clientName +
                               "\" writes another join file"};
}

CWmError JoinHandOver::write(const Store& store, const std::vector<programs::JoinFile>& joins) const {
  if (joins.size() == 1) return write(store, joins.front());
  std::map<std::string, std::string> files;
  for (const programs::JoinFile& join : joins)
    files.emplace(place(store, join.clientName), programs::joinFileText(join));
  const std::string directory = std::filesystem::path(files.begin()->first).parent_path();
  CWmError error = file_access::makeDirectory(directory);
  if (!error.IsError()) error = file_access::replaceAll(directory, files);
  if (!error.IsError()) return {};
  return {error.GetCode(),
          std::string(error.AsString()) +
              "; the clients are registered, and \"overhub renew-client NAME\" writes another "
              "join file for each that has none"};
}

void JoinHandOver::discard() {
  if (isFileMade_) ::unlink(file_.c_str());
}

void JoinHandOver::printNextSteps(const Store& store, const programs::JoinFile& join) const {
  print("client " + join.clientName + " has the id " + std::to_string(join.clientId) + "; its join file is " +
        place(store, join.clientName) +
        "\n"
        "Copy that file to the client's machine in a way that nobody else can read, run there\n"
        "  lqhost join FILE\n"
        "and delete both copies: the file holds the client's session key.\n");
}

std::string JoinHandOver::place(const Store& store, const std::string& client) const {
  if (!file_.empty()) return file_;
  return folder_.empty() ? store.joinFile(client) : folder_ + "/" + client + ".join";
}
