// `overhub renew-client`: a new session key and join file for a client; its id and its settings stay, its old
// key is worth nothing from now on.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/join_hand_over.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/session_keys.h"

namespace {

CWmError changeKey(const Store& store, const std::string& name, const std::string& protectedKey,
                   programs::JoinFile& join) {
  return store.database().writeOnce([&](soci::session& session) {
    Client client;
    CWmError error = oneClient(session, name, client);
    if (error.IsError()) return error;
    join.clientId = client.id;
    setProtectedKey(session, client.id, protectedKey);
    // Another machine may join with it.
    doubtCache(session, client.id);
    return error;
  });
}

int renewClient(const Store& store, const std::string& name, JoinHandOver& handOver) {
  programs::JoinFile join;
  std::string protectedKey;
  Client client;
  CWmError error =
      store.database().read([&](soci::session& session) { return oneClient(session, name, client); });
  if (error.IsError()) return storeFailed(error);
  error = handOver.begin(store, name, join);
  if (error.GetCode() == kLqErrArgument) return complain(kExitUsage, error.AsString());
  if (error.IsError()) return storeFailed(error);
  error = protectSessionKey(store, join.sessionKeyHex, protectedKey);
  if (!error.IsError()) error = changeKey(store, name, protectedKey, join);
  // Where it is not known whether the key was changed, the new one may be what lets the client in.
  if (error.IsError() && error.GetCode() != kLqErrConnectionLost) {
    handOver.discard();
    return storeFailed(error);
  }
  const CWmError doubt = error;
  error = handOver.write(store, join);
  if (doubt.IsError()) {
    return storeFailed(
        {doubt.GetCode(), std::string(doubt.AsString()) +
                              "; whether the key was changed is not known: run it again, or try both, "
                              "the old one and that in " +
                              handOver.place(store, name)});
  }
  if (error.IsError()) return storeFailed(error);
  handOver.printNextSteps(store, join);
  return kExitOk;
}

}  // namespace

void addRenewClient(programs::CommandLine& line, const Store::Place& place) {
  const auto client = std::make_shared<std::string>();
  const auto handOver = std::make_shared<JoinHandOver>();
  auto options = line.add("renew-client", "Give a client a new session key and join file",
                          onStore(place, [client, handOver](const Store& store) {
                            return renewClient(store, *client, *handOver);
                          }));
  options.required("NAME", *client, "The client's name; its id and its settings stay");
  handOver->describe(options);
}
