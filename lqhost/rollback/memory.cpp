#include "lqhost/rollback/memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string_view>
#include <system_error>

#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::ChangeMemory";
constexpr std::int64_t kMillis = 1000;

// The first line of the file; the message follows. A look at it does not read thousands of places.
constexpr std::string_view kWaitingLine = "lqhost waiting\n";
constexpr std::string_view kKeptLine = "lqhost kept\n";

std::mutex memoryMutex;

std::string besideRegistry(const char* suffix) {
  return lqregistry::File() + "." + instanceName() + suffix;
}

CWmError failed(const std::string& path, const char* what) {
  return {kLqErrFile, path + " cannot be " + what + ": " + std::system_category().message(errno)};
}

// What was removed or renamed stays so after a power cut.
CWmError syncDirectory(const std::string& file) {
  const std::size_t slash = file.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  const auto_handle handle(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (handle.isValid() && ::fsync(handle.get()) == 0) return {};
  return failed(directory, "synced");
}

}  // namespace

MemoryLock::MemoryLock()
    : inProcess_(memoryMutex), between_(programs::FileLock::waitFor(besideRegistry(".before.lock"))) {}

std::string memoryPath(MemoryFile which) {
  switch (which) {
    case MemoryFile::kBefore:
      return besideRegistry(".before");
    case MemoryFile::kGoing:
      return besideRegistry(".going");
    case MemoryFile::kGone:
      break;
  }
  return besideRegistry(".gone");
}

bool isThere(MemoryFile which) {
  return ::access(memoryPath(which).c_str(), F_OK) == 0;
}

bool isWaiting() {
  std::ifstream file(memoryPath(MemoryFile::kBefore));
  std::string line;
  return std::getline(file, line) && line + '\n' == kWaitingLine;
}

std::optional<ChangeMemory> loadMemory(MemoryFile which) {
  if (!isThere(which)) return std::nullopt;
  registerMessageClasses<MemoryPlace, MemoryDeadline, ChangeMemory>();
  const std::string path = memoryPath(which);
  std::string text;
  // What it says is written to the registry.
  CWmError error = FXFile::CheckTrusted(path);
  if (!error.IsError()) error = FXFile::ReadContents(path, text);
  std::string reason = error.AsString();
  ChangeMemory memory;
  const bool isKnown = text.starts_with(kWaitingLine) || text.starts_with(kKeptLine);
  if (isKnown && memory.unserialize(text.substr(text.find('\n') + 1), &reason) == 0) return memory;
  ObEvent().Error(kTag, "What was before the newest changes is not known: %s: %s", path.c_str(),
                  reason.c_str());
  return std::nullopt;
}

CWmError saveMemory(MemoryFile which, const ChangeMemory& memory) {
  std::string message;
  if (memory.serialize(message, false) != 0)
    return {kLqErrFile, "the memory of what was before cannot be written"};
  std::string text(memory.isWaiting() ? kWaitingLine : kKeptLine);
  text += message;
  return FXFile::ReplaceContents(memoryPath(which), text);
}

CWmError removeMemory(MemoryFile which) {
  const std::string path = memoryPath(which);
  if (::unlink(path.c_str()) == 0) return syncDirectory(path);
  return errno == ENOENT ? CWmError() : failed(path, "removed");
}

CWmError renameMemory(MemoryFile from, MemoryFile to) {
  const std::string path = memoryPath(from);
  if (std::rename(path.c_str(), memoryPath(to).c_str()) != 0) return failed(path, "renamed");
  return syncDirectory(path);
}

MemoryDeadline deadlineIn(std::int64_t seconds) {
  const Moment now = thisMoment();
  MemoryDeadline deadline;
  deadline.boot = now.boot;
  deadline.at = now.sinceBoot + seconds * kMillis;
  deadline.wall = now.wall + seconds;
  deadline.limit = seconds;
  return deadline;
}

std::int64_t secondsLeft(MemoryDeadline& deadline, bool& isMoved) {
  const Moment now = thisMoment();
  if (deadline.boot.get() != now.boot) {
    const std::int64_t left =
        std::clamp<std::int64_t>(deadline.wall - now.wall, 0, std::max<std::int64_t>(deadline.limit, 0));
    const std::int64_t limit = deadline.limit;
    deadline = deadlineIn(left);
    deadline.limit = limit;
    isMoved = true;
  }
  const std::int64_t left = deadline.at - now.sinceBoot;
  return left <= 0 ? 0 : (left + kMillis - 1) / kMillis;
}

std::optional<std::int64_t> secondsLeft(ChangeMemory& memory, bool& isMoved) {
  std::optional<std::int64_t> first;
  if (memory.hasToBeConfirmed == 1 && memory.confirmBy.isSet())
    first = secondsLeft(memory.confirmBy.edit(), isMoved);
  if (memory.reachBy.isSet()) {
    const std::int64_t left = secondsLeft(memory.reachBy.edit(), isMoved);
    first = first ? std::min(*first, left) : left;
  }
  return first;
}

}  // namespace host
