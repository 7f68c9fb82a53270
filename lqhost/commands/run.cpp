#include "lqhost/commands/run.h"

#include <cstdio>

#include "common/stop_signals.h"
#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/service/host_module.h"
#include "lqhost/service/product_library.h"
#include "lqhost/service/request_service.h"
#include "lqhost/service/task_run.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::run";

int complain(const std::string& what) {
  std::fprintf(stderr, "lqhost: %s\n", what.c_str());
  return kExitFailed;
}

// Runs tasks and service until a stop signal comes; everything under way has ended when it returns.
void serveUntilStopped(const programs::StopSignals& signals, PeriodicTask& download, PeriodicTask& refresh,
                       std::uint32_t spread) {
  download.start(spread);
  refresh.start(spread);
  signals.wait();
  ObEvent().Debug(kTag, "Stopping");
  download.requestStop();
  refresh.requestStop();
  // A task that waits for the server would wait on; one that writes to the registry ends its work.
  CLqNetwork::InterruptAll();
}

// Lets callbacks end that passes have queued, while the modules that they belong to are still whole.
void awaitCallbacks() {
  if (LqRegistryChangeMgr::instance != nullptr) LqRegistryChangeMgr::callBackThreadPool.waitIdle();
}

}  // namespace

int run(const RunOptions& options) {
  if (!requireJoined()) return kExitNotJoined;
  const programs::StopSignals signals;
  if (!becomeResident())
    return complain("instance " + instanceName() + " has a resident host already, or " + baseDirectory() +
                    " cannot be written");
  ProductLibrary product;
  const TaskCallback downloadStart = product.findTask(kDownloadTask.startCallback);
  const TaskCallback downloadTimer = product.findTask(kDownloadTask.timerCallback);
  const TaskCallback refreshTimer = product.findTask(kRefreshTask.timerCallback);
  if (downloadStart == nullptr || downloadTimer == nullptr || refreshTimer == nullptr)
    return complain(product.error());
  std::string error;
  if (!loadModules(options.modules, error)) return complain(error);

  {
    RequestService requests;
    if (const CWmError failure = requests.start(options.address, options.port); failure.IsError())
      return complain(std::string(failure.AsString()) + "; --listen and --port name another place");
    PeriodicTask download(kDownloadTask, downloadStart, downloadTimer, options.syncEvery);
    PeriodicTask refresh(kRefreshTask, nullptr, refreshTimer, kDefaultFrequency);
    std::printf("lqhost ready: instance %s, serving the server on %s:%u\n", instanceName().c_str(),
                options.address.c_str(), static_cast<unsigned>(options.port));
    std::fflush(stdout);
    serveUntilStopped(signals, download, refresh, options.spread);
  }
  awaitCallbacks();
  return kExitOk;
}

}  // namespace host
