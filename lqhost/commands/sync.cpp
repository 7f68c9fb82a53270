#include "lqhost/commands/sync.h"

#include <cstdio>

#include "common/text_table.h"
#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/pass_observer.h"
#include "lqhost/pass/pass_report.h"
#include "lqhost/service/product_library.h"
#include "lqhost/service/task_run.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObLog.h"

namespace host {

namespace {

// Of the log, the report repeats what says why something failed.
constexpr int kRepeatedLevel = kLqLogDefaultLevel;

void reportCallbacks(const PassFacts& facts) {
  for (const CallbackRun& run : facts.callbacks)
    std::printf("callback ran: %s %s\n", programs::escapedForTerminal(run.keyPath).c_str(),
                programs::escapedForTerminal(run.valueName).c_str());
}

void reportAcknowledgement(const PassFacts& facts) {
  if (!facts.acknowledged) {
    std::printf("not acknowledged: the server could not be told of the outcome\n");
  } else {
    const bool applied = *facts.acknowledged == OBGui::kTaskSuccess;
    std::printf("acknowledged: taskStatus %lld (%s)\n", static_cast<long long>(*facts.acknowledged),
                applied ? "applied" : "failed");
  }
}

// The log lines that tell why, on standard error, whatever the log's own threshold and place are.
void repeatLog(const oblog::Capture& log) {
  for (const oblog::Line& line : log.Lines())
    std::fprintf(stderr, "  %s\n", programs::escapedForTerminal(line.text).c_str());
}

int outcomeWithoutBatch(int result, const oblog::Capture& log) {
  if (result == 0) {
    std::printf(
        "skipped: synchronisation is switched off (EventManager bEnableRegistrySync), or joining is not "
        "finished (Session bANTICHATTER)\n");
    return kExitSkipped;
  }
  std::fprintf(stderr, "lqhost: no batch was received; the registry is as it was. The client says:\n");
  repeatLog(log);
  return kExitFailed;
}

}  // namespace

int sync(const SyncOptions& options) {
  if (!requireJoined()) return kExitNotJoined;
  ProductLibrary product;
  const TaskCallback callback = product.findTask(kDownloadTask.timerCallback);
  if (callback == nullptr) {
    std::fprintf(stderr, "lqhost: %s\n", product.error().c_str());
    return kExitFailed;
  }

  const oblog::Capture log(kRepeatedLevel);
  PassObserver observer(options.watched);
  LqPeriodicTaskStatus status;
  const std::optional<TaskRun> run = runTask(kDownloadTask, callback, status);
  if (!run) return complainOfOtherRun(kDownloadTask);
  const PassFacts facts = observer.finish();
  if (!facts.batchReceived) return outcomeWithoutBatch(run->result, log);

  const std::size_t failed = reportBatch(facts);
  reportCallbacks(facts);
  reportAcknowledgement(facts);
  const bool wasApplied = failed == 0 && facts.acknowledged != OBGui::kTaskFailed;
  if (wasApplied) return kExitOk;
  std::fflush(stdout);
  std::fprintf(stderr, "lqhost: not everything could be applied. The client says:\n");
  repeatLog(log);
  return kExitPartly;
}

}  // namespace host
