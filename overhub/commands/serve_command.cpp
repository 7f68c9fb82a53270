#include "overhub/commands/serve_command.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/descriptor_limit.h"
#include "common/stop_signals.h"
#include "common/text_table.h"
#include "lqregistry/ObDebug.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"
#include "overhub/server/server.h"

namespace {

constexpr const char* kTag = "overhub::serve";

std::string placeText(const std::string& address, std::uint16_t port) {
  const bool isV6 = address.find(':') != std::string::npos;
  return (isV6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

// Takes the directory for this process; an exit code.
int takeDirectory(const DataStore& store, file_access::Lock& lock) {
  CWmError error = store.prepare();
  bool taken = false;
  if (!error.IsError()) error = lock.tryAcquire(store.serveLockFile(), taken);
  if (!error.IsError() && !taken) {
    std::string holder;
    file_access::readWhole(store.serveLockFile(), holder);
    return complain(kExitRefused, "another overhub (process " + holder + ") serves " + store.directory() +
                                      " already; stop it first, or name another directory with --data");
  }
  if (!error.IsError()) error = lock.write(std::to_string(::getpid()));
  return error.IsError() ? complain(kExitDataUnusable, error.AsString()) : kExitOk;
}

CWmError listenEverywhere(Server& server, const ServeOptions& options, std::string& places) {
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

void announce(const DataStore& store, const std::string& places) {
  std::vector<std::string> clients;
  store.clientNames(clients);
  const std::string text = "overhub ready on " + places + ", data in " + store.directory() + ", " +
                           std::to_string(clients.size()) + " clients";
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

}  // namespace

int serve(const DataStore& store, const ServeOptions& options) {
  CWmError error = programs::configureLog(options.log);
  if (error.IsError()) return complain(kExitUsage, error.AsString());
  const programs::StopSignals stopSignals;
  programs::raiseDescriptorLimit();

  file_access::Lock lock;
  const int exitCode = takeDirectory(store, lock);
  if (exitCode != kExitOk) return exitCode;
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
