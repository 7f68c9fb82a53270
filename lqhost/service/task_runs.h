// The product's periodic tasks, and what is noted of each in a file that `lqhost status` reads.
#pragma once

#include <cstdint>
#include <optional>

#include "lqhost/pass/pass_outcome.h"

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

// What is noted of a task; times in seconds since the epoch, 0 where there is none.
struct TaskNote {
  std::int64_t lastRun = 0;
  RunOutcome outcome = RunOutcome::kDone;
  double seconds = 0;
  std::int64_t nextRun = 0;  // as the resident host has scheduled it
};

// The note of a task; nothing when it was never scheduled or run for this instance.
std::optional<TaskNote> readNote(const Task& task);

// Notes a run, and logs a line of it.
void noteRun(const Task& task, std::int64_t started, double seconds, int result, RunOutcome outcome);

// Notes when the next run is due; 0: none is scheduled any more.
void noteNextRun(const Task& task, std::int64_t time);

}  // namespace host
