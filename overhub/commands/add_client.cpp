// `overhub add-client`: registers a client, or all that a file lists: id, session key, groups, join file.
#include <memory>
#include <optional>

#include "overhub/commands/change_options.h"
#include "overhub/commands/client_list.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/join_hand_over.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/store/session_keys.h"

namespace {

constexpr const char* kFooter = R"(Examples:
  overhub add-client web-1 --server-host mgmt.example --groups web,berlin
  overhub add-client --from machines.csv --join-dir /root/joins

A line of the file names a client, its groups with ";" between them, and its host; the last two may be left out:
  web-1,web;berlin,10.0.0.7)";

struct AddClient {
  ListedClient client;
  std::string groups;
  std::string list;                // a file, instead of one client
  std::optional<std::int64_t> id;  // otherwise the highest handed out plus 1
  JoinHandOver handOver;
  ChangeOptions change;
};

struct Joining {
  ListedClient client;
  programs::JoinFile join;
  std::string protectedKey;
};

CWmError makeReady(const Store& store, AddClient& wanted, const ListedClient& client, Joining& joining) {
  joining.client = client;
  CWmError error = checkListed(client);
  if (!error.IsError()) error = wanted.handOver.begin(store, client.name, joining.join);
  if (!error.IsError()) error = protectSessionKey(store, joining.join.sessionKeyHex, joining.protectedKey);
  return error;
}

CWmError build(soci::session& session, const AddClient& wanted, const std::vector<Joining>& joining,
               ChangeSet& changes) {
  if (wanted.id && isIdTaken(session, *wanted.id))
    return {kLqErrRequestRefused, "the id " + std::to_string(*wanted.id) +
                                      " has been given to a client already, and none is given twice"};
  for (const Joining& each : joining) {
    if (findClient(session, each.client.name)) {
      return {kLqErrRequestRefused, "there is a client \"" + each.client.name +
                                        "\" already; choose another name, or give this one a new key with "
                                        "\"overhub renew-client\""};
    }
    changes.newClients.push_back(
        {{wanted.id.value_or(0), each.client.name, each.client.host}, each.protectedKey});
    for (const std::string& group : each.client.groups)
      changes.members.push_back({{group, each.client.name}, true});
  }
  return {};
}

// Fills the join files of the clients that there are now.
CWmError handOver(const Store& store, const AddClient& wanted, std::vector<Joining>& joining,
                  const std::vector<Client>& added) {
  std::vector<programs::JoinFile> joins;
  for (std::size_t i = 0; i < added.size(); ++i) {
    joining[i].join.clientId = added[i].id;
    joins.push_back(joining[i].join);
  }
  return wanted.handOver.write(store, joins);
}

int addAll(const Store& store, AddClient& wanted, std::vector<Joining>& joining) {
  const std::string command =
      wanted.list.empty() ? "add-client " + wanted.client.name : "add-client --from " + wanted.list;
  ChangeResult result;
  const int exitCode = wanted.change.make(
      store, command,
      [&](soci::session& session, ChangeSet& changes) { return build(session, wanted, joining, changes); },
      result);
  if (exitCode != kExitOk || result.newClients.empty()) {
    wanted.handOver.discard();
    return exitCode;
  }
  const CWmError error = handOver(store, wanted, joining, result.newClients);
  if (error.IsError()) return storeFailed(error);
  if (wanted.list.empty()) {
    wanted.handOver.printNextSteps(store, joining.front().join);
  } else {
    print(std::to_string(joining.size()) + " clients added; their join files are such as " +
          wanted.handOver.place(store, joining.front().client.name) + "\n");
  }
  return exitCode;
}

int addClient(const Store& store, AddClient& wanted) {
  std::vector<ListedClient> clients;
  CWmError error;
  if (wanted.list.empty() && wanted.client.name.empty())
    return complain(kExitUsage, "which clients are to be added? NAME or --from FILE is missing");
  if (!wanted.list.empty() && wanted.handOver.isOneFile())
    return complain(kExitUsage, "--from makes a join file for each client; --join-dir says where");
  if (wanted.list.empty()) {
    clients.push_back(wanted.client);
    clients.back().groups = splitWords(wanted.groups, ',');
  } else {
    error = readClientList(wanted.list, clients);
  }
  std::vector<Joining> joining(clients.size());
  for (std::size_t i = 0; i < clients.size() && !error.IsError(); ++i)
    error = makeReady(store, wanted, clients[i], joining[i]);
  if (!error.IsError() && clients.empty()) return complain(kExitUsage, wanted.list + " lists no client");
  if (!error.IsError()) return addAll(store, wanted, joining);
  wanted.handOver.discard();
  return error.GetCode() == kLqErrArgument ? complain(kExitUsage, error.AsString()) : storeFailed(error);
}

}  // namespace

void addAddClient(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<AddClient>();
  auto options =
      line.add("add-client", "Register clients and write their join files",
               onMadeStore(place, [wanted](const Store& store) { return addClient(store, *wanted); }));
  options.option("NAME", wanted->client.name, "The client's name: letters, digits, . _ -")
      .option("--id N", wanted->id, 1, "Its id; otherwise the highest ever given plus 1")
      .option("--groups GROUP,GROUP", wanted->groups, "The groups that it is in")
      .option("--host HOST", wanted->client.host, "Where it is called; otherwise where it last came from")
      .option("--from FILE", wanted->list, "Add all clients that this file lists, in one revision")
      .excludes("NAME");
  wanted->handOver.describe(options);
  wanted->change.describe(options);
  options.footer(kFooter);
}
