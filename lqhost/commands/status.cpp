#include "lqhost/commands/status.h"

#include <array>
#include <cstdio>
#include <ctime>

#include "common/text_table.h"
#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/batch_outcome.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/service/task_run.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "records/key_records.h"

namespace host {

namespace {

std::string timeText(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string setting(const char* section, const char* name) {
  LQPlatformInfo info;
  std::string value;
  return info.getString(section, name, value) ? programs::escapedForTerminal(value) : "unknown";
}

void addLine(std::string& text, const std::string& label, const std::string& content) {
  constexpr std::size_t kLabelWidth = 14;
  text += label;
  text.append(label.size() < kLabelWidth ? kLabelWidth - label.size() : 1, ' ');
  text += content + "\n";
}

// Adds last and next run; whether the last one went well, or there was none.
bool addTask(std::string& text, const std::string& label, const Task& task) {
  const std::optional<TaskNote> note = readNote(task);
  const bool hasRun = note && note->lastRun != 0;
  std::string last = "never";
  if (hasRun) {
    std::array<char, 64> duration{};
    std::snprintf(duration.data(), duration.size(), ", took %.3f s: ", note->seconds);
    last = timeText(note->lastRun) + duration.data() + outcomeText(note->outcome);
  }
  addLine(text, label, last);
  const bool isScheduled = note && note->nextRun != 0 && isHostResident();
  addLine(text, "  next", isScheduled ? timeText(note->nextRun) : "no resident host is running");
  return !hasRun || (note->outcome != RunOutcome::kFailed && note->outcome != RunOutcome::kPartly);
}

// The values that differ, one line each; their number.
std::size_t addDrift(std::string& text, OBGui::KeyList keys) {
  markExpired(keys);
  std::string lines;
  std::size_t drifted = 0;
  for (const std::size_t position : effectiveRecords(keys)) {
    const OBGui::RegistryKeyInfo& key = keys[position];
    const HeldValue now = heldValue(key);
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

}  // namespace

int status() {
  if (!requireJoined()) return kExitNotJoined;
  std::uint64_t clientId = 0;
  LQClient(setting("Overhub", "sSESSIONIDENTITY"), false, 0).getClientId(clientId, nullptr);
  std::string text;
  addLine(text, "instance", instanceName() + " in " + lqregistry::File());
  addLine(text, "joined to",
          setting("Overhub", "sOHCLIENTNAME") + " at " + setting("Overhub", "sOHHOSTNAME") + " as client " +
              setting("Overhub", "sSESSIONIDENTITY") + ", id " + std::to_string(clientId));
  std::int64_t enabled = 0;
  LQPlatformInfo().getNumber("EventManager", "bEnableRegistrySync", enabled);
  addLine(text, "sync", enabled != 0 ? "enabled" : "switched off (EventManager bEnableRegistrySync)");
  bool isWell = addTask(text, "last sync", kDownloadTask);
  isWell = addTask(text, "last refresh", kRefreshTask) && isWell;
  std::string error;
  std::size_t drifted = 0;
  if (const std::optional<CachedSettings> cached = readCachedSettings(error)) {
    addLine(text, "cache",
            std::to_string(cached->keys.size()) + " records, written " + timeText(cached->written) + ", " +
                std::to_string(std::time(nullptr) - cached->written) + " s ago");
    drifted = addDrift(text, cached->keys);
  } else {
    addLine(text, "cache", error);
    isWell = false;
  }
  std::fputs(text.c_str(), stdout);
  if (drifted != 0) return kExitDrift;
  return isWell ? kExitOk : kExitFailed;
}

}  // namespace host
