#include "platform/base/file_replacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace {

constexpr mode_t kFileMode = 0600;
// A temporary file is the target's name between these two. The dot keeps it out of listings and patterns; the
// letters X become random ones.
constexpr const char* kTemporaryStart = ".";
constexpr const char* kTemporaryEnd = ".new.";
constexpr const char* kRandomPart = "XXXXXX";
constexpr std::size_t kRandomLetters = 6;
// Longer names are cut, so that the temporary one stays below the system's limit.
constexpr std::size_t kMaxNamePart = 200;

// What the names of all temporary files for the target begin with.
std::string temporaryPrefix(const std::string& target) {
  const std::string name = target.substr(target.rfind('/') + 1);  // npos + 1 is the start
  return kTemporaryStart + name.substr(0, kMaxNamePart) + kTemporaryEnd;
}

// Waits: whoever sweeps holds the lock for a moment only.
bool lock(int descriptor) {
  while (::flock(descriptor, LOCK_EX) != 0)
    if (errno != EINTR) return false;
  return true;
}

bool hasName(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && status.st_nlink > 0;
}

// Removes a temporary file unless its writer lives, who then holds the lock.
void removeLeftOver(int directory, const char* name) {
  const auto_handle handle(::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (handle.isValid() && ::flock(handle.get(), LOCK_EX | LOCK_NB) == 0) ::unlinkat(directory, name, 0);
}

void sweepLeftOvers(const std::string& target, const std::string& own) {
  DIR* const listing = ::opendir(lqfile::directoryOf(target).c_str());
  if (listing == nullptr) return;
  const std::string prefix = temporaryPrefix(target);
  const std::string ownName = own.substr(own.rfind('/') + 1);
  while (const dirent* const entry = ::readdir(listing)) {  // NOLINT(concurrency-mt-unsafe): own listing
    const std::string_view name = entry->d_name;
    if (name.size() == prefix.size() + kRandomLetters && name.starts_with(prefix) && name != ownName)
      removeLeftOver(::dirfd(listing), entry->d_name);
  }
  ::closedir(listing);
}

}  // namespace

namespace lqfile {

CWmError errorOf(const std::string& what) {
  return {kLqErrFile, what + ": " + std::generic_category().message(errno)};
}

CWmError notRegular(const std::string& path) {
  return {kLqErrFile, path + ": not a regular file"};
}

std::string directoryOf(const std::string& path) {
  const std::size_t separator = path.rfind('/');
  return separator == std::string::npos ? "./" : path.substr(0, separator + 1);
}

CWmError openRegular(const std::string& path, int flags, auto_handle& handle) {
  // Without O_NONBLOCK, a pipe in the file's place would be waited for.
  auto_handle opened(::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, kFileMode));
  const bool isOtherKind = errno == ENXIO || errno == EISDIR || (errno == ELOOP && (flags & O_NOFOLLOW) != 0);
  if (!opened.isValid()) return isOtherKind ? notRegular(path) : errorOf(path);
  struct stat status {};
  if (::fstat(opened.get(), &status) != 0) return errorOf(path);
  if (!S_ISREG(status.st_mode)) return notRegular(path);
  handle = std::move(opened);
  return {};
}

CWmError syncDirectoryOf(const std::string& path) {
  const std::string directory = directoryOf(path);
  const auto_handle handle(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle.isValid() && ::fsync(handle.get()) == 0 ? CWmError() : errorOf(directory);
}

}  // namespace lqfile

CWmError FileReplacement::begin(const std::string& target, auto_handle& handle) {
  struct stat status {};
  if (::lstat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return lqfile::notRegular(target);
  std::string temporary;
  auto_handle opened;
  do {
    temporary = lqfile::directoryOf(target) + temporaryPrefix(target) + kRandomPart;
    opened.reset(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!opened.isValid() || !lock(opened.get())) return lqfile::errorOf(target);
    // Between the two calls somebody may have taken it for a left-over.
  } while (!hasName(opened.get()));
  auto replacement = std::make_shared<FileReplacement>(target, temporary);
  handle = auto_handle(opened.release(), std::move(replacement));
  sweepLeftOvers(target, temporary);
  return {};
}

FileReplacement::~FileReplacement() {
  if (!isPlaced_) ::unlink(temporary_.c_str());
}

CWmError FileReplacement::place(const auto_handle& handle) {
  if (::fsync(handle.get()) != 0) return lqfile::errorOf(target_);
  CWmError error = moveIntoPlace();
  // The new name is on disk only once its directory is.
  return error.IsError() ? error : lqfile::syncDirectoryOf(target_);
}

void FileReplacement::placeEmpty(const auto_handle& handle) {
  // The failed write is what its caller hears of.
  if (::ftruncate(handle.get(), 0) == 0 && !isPlaced_) static_cast<void>(moveIntoPlace());
}

CWmError FileReplacement::moveIntoPlace() {
  isPlaced_ = std::rename(temporary_.c_str(), target_.c_str()) == 0;
  return isPlaced_ ? CWmError() : lqfile::errorOf(target_);
}
