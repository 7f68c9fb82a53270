#include "lqhost/service/task_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/wire_watch.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::runTask";
constexpr const char* kResidentLock = "lqhost.lock";
constexpr mode_t kFileMode = 0600;

std::string pathInBase(const std::string& name) {
  std::string path = baseDirectory();
  FXPath::Append(path, name);
  return path;
}

std::string noteFile(const Task& task) {
  return pathInBase(std::string("lqhost.") + task.name + ".note");
}

// A lock between the processes of this machine, held while the object lives; not held when the file cannot be
// had.
class FileLock {
 public:
  explicit FileLock(const std::string& path)
      : handle_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode)) {
    struct flock whole = wholeFile();
    isHeld_ = handle_.isValid() && ::fcntl(handle_.get(), F_OFD_SETLK, &whole) == 0;
    isHeldElsewhere_ = handle_.isValid() && !isHeld_ && (errno == EAGAIN || errno == EACCES);
  }

  bool isHeld() const { return isHeld_; }
  bool isHeldElsewhere() const { return isHeldElsewhere_; }

  // Whether somebody holds the lock, without getting in the way of who is about to take it.
  static bool isTaken(const std::string& path) {
    const auto_handle handle(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock whole = wholeFile();
    return handle.isValid() && ::fcntl(handle.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
  }

 private:
  static struct flock wholeFile() {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return whole;
  }

  auto_handle handle_;
  bool isHeld_ = false;
  bool isHeldElsewhere_ = false;
};

void writeNote(const Task& task, const TaskNote& note) {
  std::array<char, 128> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%lld %d %.3f %lld\n", static_cast<long long>(note.lastRun),
                    static_cast<int>(note.outcome), note.seconds, static_cast<long long>(note.nextRun));
  const std::string path = noteFile(task);
  const std::string fresh = path + "." + std::to_string(::getpid());
  auto_handle handle;
  CWmError error = FXFile::LQCreateFile(fresh, FXFile::kGenericWrite, FXFile::kShareRead, nullptr,
                                        FXFile::kCreateAlways, FXFile::kAttributeNormal, nullptr, handle);
  std::uint64_t written = 0;
  if (!error.IsError())
    error = FXFile::LQWriteFile(handle, text.data(), static_cast<std::uint64_t>(length), written);
  if (!error.IsError() && std::rename(fresh.c_str(), path.c_str()) != 0)
    error = {kLqErrFile,
             path + ": " + std::strerror(errno)};  // NOLINT(concurrency-mt-unsafe): glibc's is safe
  if (error.IsError())
    ObEvent().Error(kTag, "Cannot note the run of task [%s]: %s", task.name, error.AsString());
}

// What the thread's own exchange with the server says about the run.
class RunWatch {
 public:
  RunOutcome outcome(const Task& task, int result) const {
    if (result != 0) return RunOutcome::kFailed;
    if (task.startCallback == nullptr) return RunOutcome::kDone;  // it exchanges nothing
    if (!received_) return RunOutcome::kSkipped;
    if (acknowledged_ == OBGui::kTaskSuccess) return RunOutcome::kApplied;
    return acknowledged_ == 0 ? RunOutcome::kUnacknowledged : RunOutcome::kPartly;
  }

 private:
  bool received_ = false;
  std::int64_t acknowledged_ = 0;  // the taskStatus sent; 0: none was
  WireWatch watch_{[this](WireWatch::Kind kind, const OBGui::RegistryTaskResp& batch) {
    if (kind == WireWatch::Kind::kReceived) {
      received_ = true;
    } else {
      acknowledged_ = batch.taskStatus;
    }
  }};
};

}  // namespace

const char* outcomeText(RunOutcome outcome) {
  switch (outcome) {
    case RunOutcome::kDone:
      return "done";
    case RunOutcome::kApplied:
      return "applied and acknowledged";
    case RunOutcome::kPartly:
      return "not everything could be applied";
    case RunOutcome::kUnacknowledged:
      return "applied, but the acknowledgement could not be sent";
    case RunOutcome::kSkipped:
      return "skipped: switched off, or not joined fully";
    case RunOutcome::kFailed:
      break;
  }
  return "failed";
}

std::optional<TaskNote> readNote(const Task& task) {
  std::ifstream file(noteFile(task));
  TaskNote note;
  int outcome = 0;
  if (!(file >> note.lastRun >> outcome >> note.seconds >> note.nextRun)) return std::nullopt;
  note.outcome = static_cast<RunOutcome>(outcome);
  return note;
}

void noteNextRun(const Task& task, std::int64_t time) {
  TaskNote note = readNote(task).value_or(TaskNote{});
  note.nextRun = time;
  writeNote(task, note);
}

std::optional<TaskRun> runTask(const Task& task, TaskCallback callback, LqPeriodicTaskStatus& status) {
  const FileLock lock(pathInBase(std::string("lqhost.") + task.name + ".lock"));
  if (lock.isHeldElsewhere()) {
    ObEvent().Debug(kTag, "Task [%s] is being run by another process; not run again", task.name);
    return std::nullopt;
  }
  TaskNote note = readNote(task).value_or(TaskNote{});
  note.lastRun = std::time(nullptr);
  const auto started = std::chrono::steady_clock::now();
  RunWatch watch;
  TaskRun run;
  run.result = callback(&status);
  run.outcome = watch.outcome(task, run.result);
  note.outcome = run.outcome;
  note.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  status.setLastRunTime(note.lastRun);
  ObEvent().Debug(kTag, "Task [%s] ended with result %d (%s) after %.3f s", task.name, run.result,
                  outcomeText(run.outcome), note.seconds);
  writeNote(task, note);
  return run;
}

int complainOfOtherRun(const Task& task) {
  std::fprintf(stderr,
               "lqhost: another process runs the task %s at this moment; try again when it has ended\n",
               task.name);
  return kExitFailed;
}

bool isHostResident() {
  return FileLock::isTaken(pathInBase(kResidentLock));
}

bool becomeResident() {
  static const FileLock lock(pathInBase(kResidentLock));
  return lock.isHeld();
}

}  // namespace host
