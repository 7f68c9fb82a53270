#include "lqhost/service/task_runs.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <mutex>

#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::runTask";

// A note is read, changed and written by the task's own thread and by whoever runs the task for a command.
std::mutex noteMutex;

std::string noteFile(const Task& task) {
  return pathInBase(std::string("lqhost.") + task.name + ".note");
}

void writeNote(const Task& task, const TaskNote& note) {
  std::array<char, 128> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%lld %d %.3f %lld\n", static_cast<long long>(note.lastRun),
                    static_cast<int>(note.outcome), note.seconds, static_cast<long long>(note.nextRun));
  const CWmError error =
      FXFile::ReplaceContents(noteFile(task), {text.data(), static_cast<std::size_t>(length)});
  if (error.IsError())
    ObEvent().Error(kTag, "Cannot note the run of task [%s]: %s", task.name, error.AsString());
}

}  // namespace

std::optional<TaskNote> readNote(const Task& task) {
  std::ifstream file(noteFile(task));
  TaskNote note;
  int outcome = 0;
  if (!(file >> note.lastRun >> outcome >> note.seconds >> note.nextRun)) return std::nullopt;
  if (outcome < 0 || outcome > kLastOutcome) return std::nullopt;
  note.outcome = static_cast<RunOutcome>(outcome);
  return note;
}

void noteRun(const Task& task, std::int64_t started, double seconds, int result, RunOutcome outcome) {
  ObEvent().Debug(kTag, "Task [%s] ended with result %d (%s) after %.3f s", task.name, result,
                  outcomeText(outcome), seconds);
  const std::lock_guard lock(noteMutex);
  TaskNote note = readNote(task).value_or(TaskNote{});
  note.lastRun = started;
  note.outcome = outcome;
  note.seconds = seconds;
  writeNote(task, note);
}

void noteNextRun(const Task& task, std::int64_t time) {
  const std::lock_guard lock(noteMutex);
  TaskNote note = readNote(task).value_or(TaskNote{});
  note.nextRun = time;
  writeNote(task, note);
}

}  // namespace host
