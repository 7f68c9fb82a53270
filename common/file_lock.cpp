#include "common/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <thread>

namespace programs {

namespace {

constexpr mode_t kFileMode = 0600;
// How often a wait that has a limit looks whether the lock is free.
constexpr std::chrono::milliseconds kPoll{20};

struct flock wholeFile() {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  return whole;
}

CWmError failed(const std::string& path) {
  return {kLqErrFile, path + ": " + std::system_category().message(errno)};
}

}  // namespace

FileLock::FileLock(const std::string& path, int command)
    : path_(path), handle_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode)) {
  if (!handle_.isValid()) {
    error_ = failed(path);
    return;
  }
  struct flock whole = wholeFile();
  while (::fcntl(handle_.get(), command, &whole) != 0) {
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EACCES) {
      state_ = State::kHeldElsewhere;
    } else {
      error_ = failed(path);
    }
    return;
  }
  state_ = State::kHeld;
}

FileLock FileLock::tryFor(const std::string& path) {
  return {path, F_OFD_SETLK};
}

FileLock FileLock::waitFor(const std::string& path) {
  return {path, F_OFD_SETLKW};
}

FileLock FileLock::waitFor(const std::string& path, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    FileLock lock = tryFor(path);
    if (!lock.isHeldElsewhere() || std::chrono::steady_clock::now() >= end) return lock;
    std::this_thread::sleep_for(kPoll);
  }
}

CWmError FileLock::write(const std::string& text) const {
  std::uint64_t written = 0;
  if (::ftruncate(handle_.get(), 0) != 0) return failed(path_);
  return FXFile::LQWriteFile(handle_, text.data(), text.size(), written);
}

bool FileLock::isTaken(const std::string& path) {
  const auto_handle handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!handle.isValid()) return errno != ENOENT;
  struct flock whole = wholeFile();
  return ::fcntl(handle.get(), F_OFD_GETLK, &whole) != 0 || whole.l_type != F_UNLCK;
}

}  // namespace programs
