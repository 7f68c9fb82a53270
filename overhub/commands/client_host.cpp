// `overhub client-host`: records where a client is to be called from now on.
#include <memory>

#include "common/host_name.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"

namespace {

constexpr const char* kFooter =
    R"(Without it a client is called at the address that it last attached from; an empty HOST goes back to that.)";

int changeHost(const Store& store, const std::string& name, const std::string& host) {
  if (!host.empty() && !programs::isAcceptableHostName(host))
    return complain(kExitUsage, "\"" + host + "\" is no host name or address");
  const CWmError error = store.database().writeOnce([&](soci::session& session) {
    Client client;
    CWmError fault = oneClient(session, name, client);
    if (!fault.IsError()) setHost(session, client.id, host);
    return fault;
  });
  return error.IsError() ? storeFailed(error) : kExitOk;
}

}  // namespace

void addClientHost(programs::CommandLine& line, const Store::Place& place) {
  const auto client = std::make_shared<std::string>();
  const auto host = std::make_shared<std::string>();
  line.add("client-host", "Record where a client is called for push, fetch and call",
           onStore(place, [client, host](const Store& store) { return changeHost(store, *client, *host); }))
      .required("CLIENT", *client, "The client's name")
      .required("HOST", *host, "Its host name or address")
      .footer(kFooter);
}
