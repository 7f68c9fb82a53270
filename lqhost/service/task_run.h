// One run of a periodic task: never twice at once on this machine, timed, logged, and noted in a file that
// `lqhost status` reads. Shared by the resident host and by the commands that run one pass now.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqhost/service/product_library.h"
#include "lqregistry/LqPeriodicTaskStatus.h"

namespace host {

// A periodic task of the product: its name, and the names of its callbacks.
struct Task {
  const char* name;
  const char* startCallback;  // null: it has none
  const char* timerCallback;
};

inline constexpr Task kDownloadTask{"RegistryDownload", "RegistryDownload_OnStart",
                                    "RegistryDownload_OnTimer"};
inline constexpr Task kRefreshTask{"AdditionalSettingsRefresh", nullptr, "AdditionalSettingsRefresh_OnTimer"};

// What a run came to. The callback's result alone does not tell a skipped pass, or one of which the server
// was told that it failed, from a good one.
enum class RunOutcome { kDone, kApplied, kPartly, kUnacknowledged, kSkipped, kFailed };

const char* outcomeText(RunOutcome outcome);

// What is noted of a task; times in seconds since the epoch, 0 where there is none.
struct TaskNote {
  std::int64_t lastRun = 0;
  RunOutcome outcome = RunOutcome::kDone;
  double seconds = 0;
  std::int64_t nextRun = 0;  // as the resident host has scheduled it
};

// The note of a task; nothing when it was never scheduled or run for this instance.
std::optional<TaskNote> readNote(const Task& task);

// Notes when the next run is due; 0: none is scheduled any more.
void noteNextRun(const Task& task, std::int64_t time);

struct TaskRun {
  int result = 0;  // the callback's
  RunOutcome outcome = RunOutcome::kDone;
};

// Runs the callback once on this thread. Sets the status's last run time, logs a line with duration and
// result, and notes the run. Nothing when another process is running the task at this moment.
std::optional<TaskRun> runTask(const Task& task, TaskCallback callback, LqPeriodicTaskStatus& status);

// Says on standard error that another process runs the task; the program's exit code.
int complainOfOtherRun(const Task& task);

// Whether a resident host serves the instance in focus.
bool isHostResident();

// Makes this process the resident host of the instance, until it ends. False when there is one, or the base
// directory cannot be written.
bool becomeResident();

}  // namespace host
