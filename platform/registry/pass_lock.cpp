// The pass lock: a table of holders for the threads of this process, and a locked file for the others.
//
// A thread first enters itself into the table, waiting for the thread that is there; then it locks the file,
// each time through a descriptor of its own. The file is never removed: a lock on a removed file would
// exclude nobody.
//
// The lock is flock's, as wherever this floor locks a file. The programs' (common/file_lock.h) is of the kind
// that the kernel can be asked about, which nobody does here: the file's text says who holds it.
#include "lqregistry/LqPassLock.h"
#include "lqregistry/UtcText.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "lqregistry/FXFile.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kSuffix = ".pass";
constexpr mode_t kFileMode = 0600;
constexpr milliseconds kPoll{20};
constexpr std::size_t kMaxNote = 512;

std::atomic<milliseconds> waitInForce{LqPassLock::kDefaultWait};

// Who holds a lock in this process.
struct Holder {
  std::thread::id thread;
  std::string note;
};

struct Table {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Holder> holders;  // by the lock's path
};

// Never destroyed: a callback that outlives main() may still hold a lock.
Table& table() {
  static auto* const theTable = new Table;
  return *theTable;
}

std::string systemText(int error) {
  return std::generic_category().message(error);
}

std::string lockPath() {
  const char* const focus = LQPI_Focus::getFocus();
  return lqregistry::File() + "." + (focus == nullptr ? "" : focus) + kSuffix;
}

// "process 17 (refresh, since 2030-01-02T03:04:05Z)"
std::string noteOf(const std::string& task) {
  return "process " + std::to_string(getpid()) + " (" + task + ", since " +
         lqtext::utcText(std::time(nullptr)) + ")";
}

std::string readNote(int file) {
  std::array<char, kMaxNote> note{};
  const ssize_t length = pread(file, note.data(), note.size(), 0);
  // Between locking the file and noting it there is a moment.
  return length > 0 ? std::string(note.data(), static_cast<std::size_t>(length)) : "another process";
}

void writeNote(int file, const std::string& note) {
  // A note that cannot be written, on a full disk say, leaves the lock what it is.
  if (ftruncate(file, 0) == 0) static_cast<void>(!pwrite(file, note.data(), note.size(), 0));
}

// No file can be made here, whoever tries. One that is there and may not be opened is somebody else's.
bool isReadOnlyPlace(const std::string& path, int error) {
  const bool isRefused = error == EACCES || error == EPERM;
  return error == EROFS || error == ENOENT || (isRefused && ::access(path.c_str(), F_OK) != 0);
}

std::string heldBy(const std::string& path, const std::string& holder) {
  return "the lock " + path + " is held by " + holder + "; it was waited for " +
         std::to_string(waitInForce.load().count()) + " ms";
}

CWmError refused(std::string why) {
  return {kLqErrFile, std::move(why)};
}

}  // namespace

struct LqPassLock::Hold {
  std::string path;
  auto_handle file;
  pid_t owner = getpid();

  explicit Hold(std::string lock) : path(std::move(lock)) {}
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;
  ~Hold() {
    if (owner != getpid()) return;  // a forked child's copy: the lock is the parent's
    if (file.isValid()) {
      writeNote(file.get(), "");
      flock(file.get(), LOCK_UN);  // not only closed: a forked child may have the descriptor, too
    }
    const std::lock_guard lock(table().mutex);
    table().holders.erase(path);
    table().changed.notify_all();
  }

  // Enters this thread into the table, which gives a hold; an error when another one stays there.
  static CWmError enterThread(const std::string& path, const std::string& note, Clock::time_point end,
                              std::unique_ptr<Hold>& hold) {
    std::unique_lock lock(table().mutex);
    auto& holders = table().holders;
    const auto known = holders.find(path);
    if (known != holders.end() && known->second.thread == std::this_thread::get_id()) {
      return refused("this thread holds the lock " + path + " already: " + known->second.note);
    }
    if (!table().changed.wait_until(lock, end, [&] { return !holders.contains(path); }))
      return refused(heldBy(path, holders[path].note));
    holders[path] = {std::this_thread::get_id(), note};
    hold = std::make_unique<Hold>(path);
    return {};
  }

  // Locks the file; an error when another process keeps it or it cannot be had.
  CWmError lockFile(const std::string& note, Clock::time_point end) {
    auto_handle opened(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode));
    if (!opened.isValid()) {
      if (isReadOnlyPlace(path, errno)) return {};
      return refused("the lock " + path + " cannot be made: " + systemText(errno));
    }
    while (flock(opened.get(), LOCK_EX | LOCK_NB) != 0) {
      const int fault = errno;
      const bool isHeld = fault == EWOULDBLOCK || fault == EINTR;
      if (!isHeld || Clock::now() >= end)
        return refused(isHeld ? heldBy(path, readNote(opened.get()))
                              : "the lock " + path + " cannot be taken: " + systemText(fault));
      std::this_thread::sleep_for(kPoll);
    }
    file = std::move(opened);
    writeNote(file.get(), note);
    return {};
  }
};

LqPassLock::LqPassLock(const std::string& task) {
  const std::string note = noteOf(task);
  const auto end = Clock::now() + waitInForce.load();
  // In a batch of this thread, the lock's holder would wait for the batch, and this thread for the holder.
  CWmError error = lqregistry::IsInBatch()
                       ? refused("this thread writes to the registry in a batch that has not ended")
                       : Hold::enterThread(lockPath(), note, end, hold_);
  if (hold_) error = hold_->lockFile(note, end);
  if (error.IsError()) hold_.reset();
  reason_ = error.AsString();
}

LqPassLock::~LqPassLock() = default;

bool LqPassLock::isHeld() const {
  return hold_ != nullptr;
}

void LqPassLock::useWait(milliseconds wait) {
  waitInForce = wait;
}
