// `lqhost status`: what a person wants to know of a client: joined to what, how the last passes went, when
// the next are due, and which values differ from what the cache says they should be.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/terminal_text.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/commands/labelled_line.h"
#include "lqhost/instance.h"
#include "lqhost/pass/batch_outcome.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/report/report_file.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/ask_resident.h"
#include "lqhost/service/resident_lock.h"
#include "lqhost/service/task_runs.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/UtcText.h"
#include "lqregistry/pstring.h"
#include "records/expiry.h"
#include "records/record_rules.h"

namespace host {

namespace {

std::string textOf(const lqsettings::Setting& setting) {
  LQPlatformInfo info;
  std::string value;
  return info.getString(setting.key, setting.name, value) ? programs::escapedForTerminal(value) : "unknown";
}

// What a run in the past deserves now: there is nothing to do about one that was skipped, and which records
// failed is not known any more.
int exitCodeNow(RunOutcome outcome) {
  if (outcome == RunOutcome::kSkipped || outcome == RunOutcome::kPutOff) return kExitOk;
  return outcome == RunOutcome::kPartly ? kExitFailed : exitCodeOf(outcome);
}

int exitCodeOf(Unsettled why) {
  switch (why) {
    case Unsettled::kCacheLost:
      return kExitCacheLost;
    case Unsettled::kCacheKept:
      return kExitCacheKept;
    case Unsettled::kCacheUnreadable:
      return kExitCacheUnreadable;
    case Unsettled::kPass:
    case Unsettled::kPush:
    case Unsettled::kCacheDropped:
      break;
  }
  return kExitFailed;
}

// Adds last and next run; what the last one deserves.
int addTask(std::string& text, const std::string& label, const Task& task, bool isResident) {
  const std::optional<TaskNote> note = readNote(task);
  const bool hasRun = note && note->lastRun != 0;
  std::string last = "never";
  if (hasRun) {
    std::array<char, 64> duration{};
    std::snprintf(duration.data(), duration.size(), ", took %.3f s: ", note->seconds);
    last = lqtext::utcText(note->lastRun) + duration.data() + outcomeText(note->outcome);
  }
  addLine(text, label, last);
  std::string next = "no resident host is running";
  if (isResident) next = note && note->nextRun != 0 ? lqtext::utcText(note->nextRun) : "not noted yet";
  addLine(text, "  next", next);
  return hasRun ? exitCodeNow(note->outcome) : kExitOk;
}

int addUnsettled(std::string& text) {
  const std::optional<UnsettledNote> note = standingNote();
  if (!note) return kExitOk;
  if (isUnderWay(*note)) {
    addLine(text, "unsettled", "a synchronisation is under way");
    return kExitOk;
  }
  addLine(text, "unsettled", unsettledText(*note) + "; no refresh before a synchronisation has stored it");
  return exitCodeOf(note->why);
}

// What is kept of the newest changes, or waits, or was gone back from.
int addMemory(std::string& text) {
  const HostReport::Memory memory = memoryState();
  const std::string line = memoryText(memory);
  if (!line.empty()) addLine(text, "changes", programs::escapedForTerminal(line));
  return memory.state.get().starts_with("go") ? kExitHeldBack : kExitOk;
}

// What the resident host, if there is one, says of itself.
int addResident(std::string& text) {
  const std::optional<CommandResult> answer = answerOfResident(kAskCallbacks);
  if (!answer) return kExitOk;
  if (answer->exitCode != kExitOk) {
    text += answer->err;
    return kExitFailed;
  }
  addLine(text, "callbacks", waitingCallbacksText(std::strtoull(answer->out.c_str(), nullptr, 10)));
  return kExitOk;
}

// What became of the newest report to the server: by the resident host's word, or by what is noted.
void addReport(std::string& text, bool isResident) {
  std::optional<CommandResult> answer = isResident ? answerOfResident(kAskReport) : std::nullopt;
  const bool isTold = answer && answer->exitCode == kExitOk;
  addLine(text, "report", isTold ? answer->out : standingText(readKeptReport().standing));
}

// The values that differ, one line each; their number.
std::size_t addDrift(std::string& text, OBGui::KeyList keys) {
  markExpired(keys);
  const std::vector<CurrentValue> held = currentValues(keys);
  std::string lines;
  std::size_t drifted = 0;
  for (const std::size_t position : effectiveRecords(keys)) {
    const OBGui::RegistryKeyInfo& key = keys[position];
    const CurrentValue& now = held[position];
    if (key.valueName->empty() || isAsWanted(key, now)) continue;
    ++drifted;
    const std::string wanted =
        isToBeRemoved(key) ? "absent" : "\"" + shownValue(key, wantedValue(key)) + "\"";
    lines += "  " + programs::escapedForTerminal(normalisedKeyPath(key.keyPath) + " " + key.valueName.get()) +
             " is " + programs::escapedForTerminal(now ? "\"" + shownValue(key, *now) + "\"" : "absent") +
             ", should be " + programs::escapedForTerminal(wanted) + "\n";
  }
  addLine(text, "drift",
          std::to_string(drifted) + " of " + std::to_string(keys.size()) + " values differ from the cache");
  text += lines;
  return drifted;
}

// Adds the cache and what differs from it.
int addCache(std::string& text) {
  CachedSettings cached;
  if (const CWmError error = readCachedSettings(cached); error.IsError()) {
    addLine(text, "cache", programs::escapedForTerminal(error.AsString()));
    return kExitFailed;
  }
  addLine(text, "cache",
          std::to_string(cached.keys.size()) + " records, written " + lqtext::utcText(cached.written) + ", " +
              std::to_string(std::time(nullptr) - cached.written) + " s ago");
  return addDrift(text, cached.keys) == 0 ? kExitOk : kExitDrift;
}

void addIdentity(std::string& text) {
  std::uint64_t clientId = 0;
  LQClient(textOf(lqsettings::kSessionIdentity), false, 0).getClientId(clientId, nullptr);
  addLine(text, "instance", programs::escapedForTerminal(instanceName() + " in " + lqregistry::File()));
  addLine(text, "joined to",
          textOf(lqsettings::kServerName) + " at " + textOf(lqsettings::kServerHost) + " as client " +
              textOf(lqsettings::kSessionIdentity) + ", id " + std::to_string(clientId));
  std::int64_t enabled = 0;
  LQPlatformInfo().getNumber(lqsettings::kSyncEnabled.key, lqsettings::kSyncEnabled.name, enabled);
  addLine(text, "sync", enabled != 0 ? "enabled" : "switched off (EventManager bEnableRegistrySync)");
}

int status() {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  CommandResult result;
  const bool isResident = isHostResident();
  addIdentity(result.out);
  int worst = addTask(result.out, "last sync", kDownloadTask, isResident);
  const int refreshed = addTask(result.out, "last refresh", kRefreshTask, isResident);
  worst = worseOf(worst, addUnsettled(result.out));
  worst = worseOf(worst, addMemory(result.out));
  const int resident = addResident(result.out);
  worst = worseOf(worst, resident);
  addReport(result.out, isResident && resident == kExitOk);
  const int cache = addCache(result.out);
  worst = worseOf(worst, cache);
  // That a refresh had no cache, or left none, is over once a synchronisation has stored another.
  const bool isOver =
      cache != kExitFailed && (refreshed == kExitCacheLost || refreshed == kExitCacheUnreadable);
  if (!isOver) worst = worseOf(worst, refreshed);
  if (const CWmError error = pstring::CheckKey(); error.IsError()) {
    addLine(result.out, "protection", programs::escapedForTerminal(error.AsString()));
    worst = worseOf(worst, kExitFailed);
  }
  const CWmError error = lqregistry::Check();
  addLine(result.out, "registry",
          error.IsError() ? "damaged: " + programs::escapedForTerminal(error.AsString()) : "sound");
  result.exitCode = error.IsError() ? kExitNotJoined : worst;
  return print(result);
}

}  // namespace

std::string waitingCallbacksText(std::size_t waiting) {
  const std::string text = std::to_string(waiting) + " wait in the resident host";
  return waiting < kManyCallbacks ? text : text + "; WARNING: a module does not keep up, see its log";
}

void addStatus(CommandLine& line) {
  line.add("status", "Show what this client is joined to, its last and next passes, and drift", &status);
}

}  // namespace host
