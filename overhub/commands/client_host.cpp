// `overhub client-host`: records where a client is to be called from now on.
#include <memory>

#include "common/host_name.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"

namespace {

constexpr const char* kFooter =
    R"(Without it a client is called at the address that it last attached from. Remove hosts/CLIENT in the data
directory to go back to that.)";

int setHost(const DataStore& store, const std::string& client, const std::string& host) {
  if (!programs::isAcceptableHostName(host))
    return complain(kExitUsage, "\"" + host + "\" is no host name or address");
  if (!store.hasClient(client)) return unknownClient(store, client);
  CWmError error = store.prepare();
  if (!error.IsError()) error = store.setHost(client, host);
  return error.IsError() ? dataUnusable(error) : kExitOk;
}

}  // namespace

void addClientHost(programs::CommandLine& line, const std::string& data) {
  const auto client = std::make_shared<std::string>();
  const auto host = std::make_shared<std::string>();
  line.add(
          "client-host", "Record where a client is called for push, fetch and call",
          onExisting(data, [client, host](const DataStore& store) { return setHost(store, *client, *host); }))
      .required("CLIENT", *client, "The client's name")
      .required("HOST", *host, "Its host name or address")
      .footer(kFooter);
}
