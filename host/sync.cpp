#include "host/sync.h"

#include <cstdio>
#include <map>

#include "host/batch_outcome.h"
#include "host/exit_codes.h"
#include "host/pass_observer.h"
#include "host/product_library.h"
#include "platform/LQPlatformInfo.h"
#include "platform/LqRegistryFile.h"
#include "platform/ObLog.h"
#include "programs/text_table.h"
#include "records/OBGui.h"

namespace host {

namespace {

constexpr const char* kTimerTask = "RegistryDownload_OnTimer";
// Longer values are cut in the report, which is for looking at, not for reading back.
constexpr std::size_t kShownValueBytes = 48;
// Of the log, the report repeats what says why something failed.
constexpr int kRepeatedLevel = kLqLogDefaultLevel;

// Whether this instance knows a server; says what to do when it does not.
bool hasJoined() {
  LQPlatformInfo info;
  std::string server;
  if (info.getString("Overhub", "sOHHOSTNAME", server)) return true;
  const char* const instance = LQPI_Focus::getFocus();
  if (info.getRegError() == kRegUnavailable) {
    std::fprintf(stderr, "lqhost: %s\n", info.getRegErrorText().c_str());
  } else {
    std::fprintf(
        stderr,
        "lqhost: instance %s in %s has not joined a server; run `lqhost join FILE` with the file that "
        "`overhub add-client` wrote\n",
        instance, lqregistry::File().c_str());
  }
  return false;
}

std::string shown(std::string value) {
  if (value.size() > kShownValueBytes) value = value.substr(0, kShownValueBytes) + "...";
  return value;
}

// Prints one row a value and the totals; the number of records that failed.
std::size_t reportBatch(const PassFacts& facts) {
  const std::vector<RecordOutcome> outcomes = judgeBatch(facts);
  programs::TextTable table({"OUTCOME", "KEY", "VALUE", "NOW", "NOTE"});
  std::map<Outcome, std::size_t> totals;
  for (const RecordOutcome& outcome : outcomes) {
    table.addRow({outcomeWord(outcome.outcome), outcome.keyPath, outcome.valueName, shown(outcome.value),
                  outcome.note});
    ++totals[outcome.outcome];
  }
  std::printf("%s\n",
              outcomes.empty() ? "The server holds no records for this client.\n" : table.text().c_str());
  std::printf(
      "%zu records: %zu added, %zu changed, %zu removed, %zu reset, %zu left as they were, %zu failed\n",
      facts.batch.size(), totals[Outcome::kAdded], totals[Outcome::kChanged], totals[Outcome::kRemoved],
      totals[Outcome::kReset], totals[Outcome::kLeft], totals[Outcome::kFailed]);
  return totals[Outcome::kFailed];
}

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
  if (!hasJoined()) return kExitNotJoined;
  ProductLibrary product;
  const TaskCallback runTimer = product.findTask(kTimerTask);
  if (runTimer == nullptr) {
    std::fprintf(stderr, "lqhost: %s\n", product.error().c_str());
    return kExitFailed;
  }

  const oblog::Capture log(kRepeatedLevel);
  PassObserver observer(options.watched);
  LqPeriodicTaskStatus status;
  const int result = runTimer(&status);
  const PassFacts facts = observer.finish();
  if (!facts.batchReceived) return outcomeWithoutBatch(result, log);

  const std::size_t failed = reportBatch(facts);
  reportCallbacks(facts);
  reportAcknowledgement(facts);
  const bool wasApplied = failed == 0 && facts.acknowledged != OBGui::kTaskFailed;
  if (wasApplied) return kExitOk;
  std::fprintf(stderr, "lqhost: not everything could be applied. The client says:\n");
  repeatLog(log);
  return kExitPartly;
}

}  // namespace host
