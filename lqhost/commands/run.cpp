// `lqhost run`: the resident host service. Loads the product and the host's modules once, runs the periodic
// tasks, serves the server's requests and this machine's commands, and stops in order when it is asked to.
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <utility>

#include "common/host_service.h"
#include "common/stop_signals.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/report/host_reporter.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/command_protocol.h"
#include "lqhost/service/command_socket.h"
#include "lqhost/service/host_module.h"
#include "lqhost/service/keeper.h"
#include "lqhost/service/periodic_task.h"
#include "lqhost/service/request_service.h"
#include "lqhost/service/resident_lock.h"
#include "lqhost/service/verdict_asker.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqVerdicts.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::run";
// How long the end waits for callbacks; within what the unit allows for a stop, with the rest of it.
constexpr std::chrono::seconds kCallbackWait{8};
constexpr std::chrono::seconds kVerdictWait{2};

struct RunOptions {
  std::string address = "0.0.0.0";
  std::uint16_t port = programs::kHostServicePort;
  std::uint32_t syncEvery = kDefaultFrequency;  // seconds
  std::uint32_t spread = kDefaultSpread;        // seconds
  std::uint32_t wayBackLimit = kWayBackLimit;   // seconds
  std::vector<std::string> modules;
};

bool refreshOnTime(Passes& passes, LqPeriodicTaskStatus& status) {
  const RefreshResult result = passes.refresh(status);
  if (result.reason || result.run == RunOutcome::kCacheLost) wantDownload();
  return result.run != RunOutcome::kFailed;
}

CommandResult countCallbacks() {
  return {kExitOk, std::to_string(LqRegistryChangeMgr::callBackThreadPool.pendingCount()), ""};
}

// What the commands of this machine ask for.
CommandResult answer(Passes& passes, const std::string& question) {
  if (question == kAskSync) return synchroniseNow(passes);
  if (question == kAskFreshSync) return synchroniseNow(passes, OldCache::kDropped);
  if (question == kAskRefresh) return refreshNow(passes);
  if (question == kAskUpload) return uploadNow();
  if (question == kAskRollback) return rollBackNow(passes);
  if (question == kAskReport) return {kExitOk, standingText(HostReporter::get().standing()), ""};
  if (question == kAskRegistered) return whatIsRegistered();
  if (question == kAskCallbacks) return countCallbacks();
  return complaint(kExitUsage, "the resident host knows no command " + question);
}

// The periodic tasks, from the start to the end of the last run.
class Schedule {
 public:
  Schedule(Passes& passes, const RunOptions& options)
      : download_(
            kDownloadTask, passes.downloadStart(),
            [&passes](LqPeriodicTaskStatus& status) { return passes.download(status).hasEndedWell(); },
            options.syncEvery),
        refresh_(
            kRefreshTask, nullptr,
            [&passes](LqPeriodicTaskStatus& status) { return refreshOnTime(passes, status); },
            kDefaultFrequency),
        keeper_(passes) {
    onDownloadWanted([this] { download_.runSoon(); });
  }
  // A command that is still at it may want one.
  ~Schedule() { onDownloadWanted({}); }
  Schedule(const Schedule&) = delete;
  Schedule& operator=(const Schedule&) = delete;

  void start(std::uint32_t spread) {
    // Left by a host that was killed, or by a pass that did not store the cache.
    if (standingNote() || isWayBackUnproven()) download_.runSoon();
    download_.start(spread);
    refresh_.start(spread);
    keeper_.start();
  }
  void requestStop() {
    keeper_.requestStop();
    download_.requestStop();
    refresh_.requestStop();
  }

 private:
  PeriodicTask download_;
  PeriodicTask refresh_;
  Keeper keeper_;
};

// Reports while it lives, on a thread of its own; the first time within the spread of the first passes.
class Reporting {
 public:
  explicit Reporting(std::uint32_t spread) {
    std::random_device seed;
    const double random = std::uniform_real_distribution<double>(0, 1)(seed);
    HostReporter::get().startSending(
        std::chrono::duration<double>(firstDelay(spread, kDefaultFrequency, random)));
  }
  // Ends what it waits for with every other wait for the network.
  ~Reporting() { HostReporter::get().stopSending(); }
  Reporting(const Reporting&) = delete;
  Reporting& operator=(const Reporting&) = delete;
};

// Asks the modules while it lives.
class Asking {
 public:
  explicit Asking(Passes& passes) {
    VerdictAsker::get().start(
        [&passes](const std::string& reason) { static_cast<void>(passes.goBackNow(reason)); });
  }
  ~Asking() { VerdictAsker::get().stop(); }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;
};

// Lets callbacks end that passes have queued, while the modules that they belong to are still whole. What has
// not run by then is logged.
void awaitModules() {
  LqRegistryChangeMgr::callBackThreadPool.drain(kCallbackWait);
  LqVerdicts::threadPool().drain(kVerdictWait);
}

// Until a stop signal comes; everything under way has ended when it returns.
CommandResult serveUntilStopped(const RunOptions& options, const programs::StopSignals& signals,
                                Passes& passes, ResidentSocket& socket) {
  Schedule schedule(passes, options);
  RequestService requests;
  passes.takeUpMemory();
  if (const CWmError error = requests.start(options.address, options.port); error.IsError())
    return complaint(kExitFailed, std::string(error.AsString()) + "; --listen and --port name another place");
  schedule.start(options.spread);
  const Reporting reporting(options.spread);
  const Asking asking(passes);
  if (const CWmError error =
          socket.serve([&passes](const std::string& question) { return answer(passes, question); });
      error.IsError())
    return complaint(kExitFailed, error.AsString());
  // Not yet how this ends.
  static_cast<void>(print({kExitOk,
                           "lqhost ready: instance " + instanceName() + ", serving the server on " +
                               options.address + ":" + std::to_string(options.port) + "\n",
                           ""}));
  signals.wait();
  ObEvent().Debug(kTag, "Stopping");
  schedule.requestStop();
  // A task that waits for the server would wait on; one that writes to the registry ends its work.
  CLqNetwork::InterruptAll();
  return {};
}

std::optional<CommandResult> whyNotResident() {
  if (auto notJoined = whyNotJoined()) return notJoined;
  if (!openBase().isValid())
    return complaint(kExitFailed, "the base directory \"" + baseDirectory() + "\" cannot be opened");
  const CWmError error = becomeResident();
  if (!error.IsError()) return std::nullopt;
  return complaint(kExitFailed, error.AsString());
}

int run(const RunOptions& options) {
  useWayBackLimit(options.wayBackLimit);
  const programs::StopSignals signals;
  if (const auto whyNot = whyNotEvenAfterGoingBack(&whyNotResident)) return print(*whyNot);
  if (const CWmError error = lqregistry::Check(); error.IsError())
    return print(complaint(kExitNotJoined, error.AsString()));
  ProductLibrary product;
  Passes passes(product);
  if (passes.error().IsError()) return print(complaint(kExitFailed, passes.error().AsString()));
  CommandResult result;
  {
    ResidentSocket socket;
    if (const CWmError error = socket.open(); error.IsError())
      return print(complaint(kExitFailed, error.AsString()));
    if (const CWmError error = loadModules(options.modules); error.IsError())
      return print(complaint(kExitFailed, error.AsString()));
    result = serveUntilStopped(options, signals, passes, socket);
    // A command that does not end still uses the product, and what is torn down from here on.
    if (!socket.finish()) {
      ObEvent().Error(kTag, "A command outlasts the stop; the process ends under it");
      std::_Exit(print(result));
    }
  }
  awaitModules();
  return print(result);
}

}  // namespace

void addRun(CommandLine& line) {
  const auto options = std::make_shared<RunOptions>();
  line.add(kRunCommand, "Stay: run the periodic tasks and serve the server's requests",
           [options] { return run(*options); })
      .option("--listen", options->address, "Address to serve the server's requests on")
      .option("--port", options->port, "Port to serve them on")
      .bounded("--sync-every", options->syncEvery, kMinFrequency, kMaxFrequency,
               "Seconds between two synchronisations")
      .bounded("--spread", options->spread, 0, kMaxFrequency, "Spread first runs over this many seconds")
      .bounded(
          "--way-back-limit", options->wayBackLimit, kMinWayBackLimit, kMaxWayBackLimit,
          "Seconds within which the server has to be reached after the way to it was changed; otherwise the "
          "change is gone back from")
      .option("--module", options->modules, "Load this host module; may be repeated");
}

}  // namespace host
