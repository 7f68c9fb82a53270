// `overhub serve`: answers the clients until it is asked to stop.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/descriptor_limit.h"
#include "common/log_options.h"
#include "common/stop_signals.h"
#include "common/terminal_text.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/ObDebug.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/server/server.h"
#include "overhub/store/clients.h"

namespace {

constexpr const char* kTag = "overhub::serve";
constexpr const char* kAnyAddress = "0.0.0.0";

constexpr const char* kFooter = R"(Example:
  overhub serve --listen 10.0.0.5 --listen ::1 --log-level 2
SIGTERM or SIGINT stops the server; running sessions get a few seconds to finish.)";

struct Serve {
  std::vector<std::string> addresses;  // empty: kAnyAddress
  std::vector<std::uint16_t> ports{kFirstServicePort, kSecondServicePort};
  programs::LogOptions log;
};

std::string placeText(const std::string& address, std::uint16_t port) {
  const bool isV6 = address.find(':') != std::string::npos;
  return (isV6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

CWmError listenEverywhere(Server& server, const Serve& options, std::string& places) {
  std::vector<std::string> list;
  const std::vector<std::string> any{kAnyAddress};
  for (const std::string& address : options.addresses.empty() ? any : options.addresses) {
    for (const std::uint16_t port : options.ports) {
      CWmError error = server.listen(address, port);
      if (error.IsError()) return error;
      list.push_back(placeText(address, port));
    }
  }
  for (std::size_t i = 0; i < list.size(); ++i)
    places += (i == 0 ? "" : i + 1 < list.size() ? ", " : " and ") + list[i];
  return {};
}

void announce(const Store& store, const std::string& places) {
  std::size_t clients = 0;
  std::string doubt;
  const CWmError error = store.database().read([&](soci::session& session) -> CWmError {
    clients = allClients(session).size();
    doubt = store.database().engine().doubt(session);
    return {};
  });
  const std::string known = error.IsError()
                                ? std::string("but the clients cannot be listed: ") + error.AsString()
                                : std::to_string(clients) + (clients == 1 ? " client" : " clients");
  if (!doubt.empty()) {
    warn(doubt);
    ObEvent().Error(kTag, "%s", doubt.c_str());
  }
  const std::string text = "overhub ready on " + places + ", store " + store.place() + ", " + known;
  print(programs::escapedForTerminal(text) + '\n');
  std::fflush(stdout);
  ObEvent().DebugLvl(0, kTag, "%s", text.c_str());
}

// Ends the process when requests outlast the time they have: they still use the server.
void stop(Server& server) {
  std::size_t cutOff = 0;
  const std::size_t left = server.stop(cutOff);
  if (cutOff + left == 0) {
    ObEvent().DebugLvl(0, kTag, "stopped");
  } else {
    ObEvent().DebugLvl(0, kTag, "stopped; %zu sessions were cut off", cutOff + left);
  }
  if (left != 0) std::_Exit(kExitOk);
}

// Does not return when sessions had to be cut off.
int serve(const Store& store, const Serve& options) {
  CWmError error = programs::configureLog(options.log);
  if (error.IsError()) return complain(kExitUsage, error.AsString());
  const programs::StopSignals stopSignals;
  programs::raiseDescriptorLimit();

  Server server(store);
  std::string places;
  error = listenEverywhere(server, options, places);
  if (error.IsError())
    return complain(kExitRefused,
                    std::string(error.AsString()) + "; --listen and --ports name other addresses and ports");
  error = server.start();
  if (error.IsError()) return complain(kExitRefused, error.AsString());
  announce(store, places);
  const int signal = stopSignals.wait();
  ObEvent().DebugLvl(0, kTag, "stopping on signal %d", signal);
  stop(server);
  return kExitOk;
}

}  // namespace

void addServe(programs::CommandLine& line, const Store::Place& place) {
  const auto options = std::make_shared<Serve>();
  line.add("serve", "Answer the clients until asked to stop",
           onStore(place, [options](const Store& store) { return serve(store, *options); }))
      .option("--listen ADDRESS", options->addresses,
              std::string("Address to listen on, may be repeated; otherwise ") + kAnyAddress)
      .ports("--ports FIRST,SECOND", options->ports, "The two service ports")
      .bounded("--log-level", options->log.level, 0, programs::kMaxLogLevel, "How much is logged")
      .option("--log-file FILE", options->log.file, "Log to this file; otherwise to standard error")
      .footer(kFooter);
}
