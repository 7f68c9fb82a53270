// `lqhost sync`: one synchronisation now, and a report of what it did.
#include <list>
#include <memory>
#include <mutex>

#include "common/terminal_text.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/ask_resident.h"
#include "lqhost/service/resident_lock.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObLog.h"

namespace host {

namespace {

// Of the log, the report repeats what says why something failed.
constexpr int kRepeatedLevel = kLqLogDefaultLevel;

// Registers change callbacks while it lives, and keeps a line of each that ran. One at a time in a process.
class CallbackWatch {
 public:
  explicit CallbackWatch(const CommandLine::Pairs& watched) : watched_(watched) {
    for (const auto& [path, name] : watched_) LqRegistryChangeMgr::GetInstance()->Register(path, name, &note);
  }
  ~CallbackWatch() {
    for (const auto& [path, name] : watched_) LqRegistryChangeMgr::GetInstance()->UnRegister(path, name);
  }
  CallbackWatch(const CallbackWatch&) = delete;
  CallbackWatch& operator=(const CallbackWatch&) = delete;

  // Waits for those that are queued.
  static std::string text() {
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  // Callbacks are plain functions with a record by value.
  static void note(OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param)
    const std::lock_guard lock(mutex_);
    lines_ +=
        "callback ran: " + programs::escapedForTerminal(key.keyPath.get() + " " + key.valueName.get()) + "\n";
  }

  static std::mutex mutex_;
  static std::string lines_;  // guarded by mutex_
  const CommandLine::Pairs& watched_;
};
std::mutex CallbackWatch::mutex_;
std::string CallbackWatch::lines_;

struct SyncOptions {
  CommandLine::Pairs watched;
  bool isFresh = false;
  std::uint32_t wayBackLimit = kWayBackLimit;  // seconds

  OldCache oldCache() const { return isFresh ? OldCache::kDropped : OldCache::kStays; }
};

std::string acknowledgementText(const PassResult& pass) {
  if (!pass.acknowledgedAs) return "not acknowledged: the server could not be told of the outcome\n";
  if (!pass.refusal.empty())
    return "not acknowledged: the server could not record the outcome: " +
           programs::escapedForTerminal(pass.refusal) + "\n";
  if (!pass.isGoodbyeAnswered)
    return "not acknowledged: the server was told of the outcome, and did not say whether it recorded that\n";
  return "acknowledged: taskStatus " + std::to_string(*pass.acknowledgedAs) +
         (*pass.acknowledgedAs == OBGui::kTaskSuccess ? " (applied)\n" : " (failed)\n");
}

// What stands in the way of the next refresh, and the way out; empty when nothing does.
std::string cacheText(CacheFate fate) {
  const std::string path = programs::escapedForTerminal(pathInBase(kSettingsCacheFile));
  switch (fate) {
    case CacheFate::kStored:
      break;
    case CacheFate::kLost:
      return "cache lost: " + path + " could not be written; free the disk or mend the directory\n";
    case CacheFate::kKept:
      return "cache kept: " + path +
             " holds more records than the server's reply, so it was not replaced and works against the "
             "server; have the server send removals for what it no longer sets, or drop it with "
             "`lqhost sync --fresh`\n";
    case CacheFate::kUnreadable:
      return "cache not replaced: " + path + " cannot be read; drop it with `lqhost sync --fresh`\n";
  }
  return {};
}

constexpr const char* kDroppedText =
    "cache dropped: a synchronisation stores another as soon as the server is reached; there is no refresh "
    "before\n";

// The log lines that tell why, whatever the log's own threshold and place are.
std::string repeated(const oblog::Capture& log) {
  std::string text;
  for (const oblog::Line& line : log.Lines()) text += "  " + programs::escapedForTerminal(line.text) + "\n";
  return text;
}

int syncHere(const SyncOptions& options) {
  ProductLibrary product;
  Passes passes(product);
  if (passes.error().IsError()) return print(complaint(kExitFailed, passes.error().AsString()));
  const CallbackWatch callbacks(options.watched);
  passes.takeUpMemory();
  CommandResult result = synchroniseNow(passes, options.oldCache());
  // Nobody else would try the way that was just changed.
  if (result.exitCode != kExitFailed && isWayBackUnproven()) {
    result.out += "the way to the server was changed, so it is tried at once:\n";
    const CommandResult proof = synchroniseNow(passes);
    result.out += proof.out;
    result.err += proof.err;
    result.exitCode = proof.exitCode;
    if (isWayBackUnproven()) result.err += complaintLine(memoryText(memoryState()));
  }
  result.out += CallbackWatch::text();
  return print(result);
}

int sync(const SyncOptions& options) {
  if (const auto notJoined = whyNotEvenAfterGoingBack(&whyNotJoined)) return print(*notJoined);
  if (!options.watched.empty() && isHostResident()) {
    return print(
        complaint(kExitFailed,
                  "--watch is for machines without a resident host: callbacks run in the process that "
                  "synchronises, which is the resident host here; its log shows what they did"));
  }
  useWayBackLimit(options.wayBackLimit);
  if (const auto answered = answerOfResident(options.isFresh ? kAskFreshSync : kAskSync))
    return print(*answered);
  return syncHere(options);
}

}  // namespace

CommandResult synchroniseNow(Passes& passes, OldCache oldCache) {
  const oblog::Capture log(kRepeatedLevel);
  LqPeriodicTaskStatus status;
  CommandResult result;
  const PassResult pass = passes.downloadWithReport(status, result.out, oldCache);
  if (pass.dropError.IsError()) {
    const std::string what =
        "nothing was synchronised, because the settings cache could not be dropped first: ";
    return complaint(kExitFailed, what + pass.dropError.AsString());
  }
  if (pass.memoryError.IsError())
    result.err +=
        complaintLine(std::string("what was before could not be kept: ") + pass.memoryError.AsString());
  if (!pass.wentBack.empty()) result.err += complaintLine("went back: " + pass.wentBack);
  const RunOutcome outcome = pass.outcome();
  result.exitCode = exitCodeOf(outcome);
  if (pass.noteError.IsError()) {
    const std::string what = "what is under way could not be noted on disk: ";
    result.err += complaintLine(what + pass.noteError.AsString());
  }
  if (outcome == RunOutcome::kHeldBack) {
    result.err += complaintLine("the batch was not applied: " + pass.heldBack);
  } else if (outcome == RunOutcome::kSkipped) {
    result.out +=
        "skipped: synchronisation is switched off (EventManager bEnableRegistrySync), or joining is not "
        "finished (Session bANTICHATTER)\n";
  } else if (!pass.received) {
    if (pass.isCacheDropped) result.out += kDroppedText;
    result.err +=
        "lqhost: no batch was received; the registry is as it was. The client says:\n" + repeated(log);
  } else {
    result.out += acknowledgementText(pass) + cacheText(pass.cache);
    if (result.exitCode != kExitOk)
      result.err += "lqhost: " + std::string(outcomeText(outcome)) + ". The client says:\n" + repeated(log);
  }
  return result;
}

void addSync(CommandLine& line) {
  const auto options = std::make_shared<SyncOptions>();
  line.add("sync", "Synchronise once now, and report what changed", [options] { return sync(*options); })
      .flag(
          "--fresh", options->isFresh,
          "Drop the settings cache first, so that another one is stored even if the server's reply has fewer "
          "records; for a machine that was set back to an older state, say")
      .bounded("--way-back-limit", options->wayBackLimit, kMinWayBackLimit, kMaxWayBackLimit,
               "As of `lqhost run`, where none is running")
      .option(
          "--watch PATH NAME", options->watched,
          "Register a change callback for a key path and a value name, spelled as the server spells them; "
          "may be repeated. Not while a resident host runs");
}

}  // namespace host
