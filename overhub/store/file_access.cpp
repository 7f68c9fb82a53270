#include "overhub/store/file_access.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

namespace file_access {

namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr std::size_t kReadPiece = 64U << 10;
// Begins with a dot, as no client's name does, so that a file left behind by a crash is nobody's batch.
constexpr const char* kTemporaryName = "/.new.XXXXXX";

CWmError failed(const std::string& path) {
  return {kLqErrFile, path + ": " + std::system_category().message(errno)};
}

CWmError openForReading(const std::string& path, auto_handle& handle) {
  return FXFile::LQCreateFile(path, FXFile::kGenericRead, FXFile::kShareRead, nullptr, FXFile::kOpenExisting,
                              FXFile::kAttributeNormal, nullptr, handle);
}

CWmError readOn(const auto_handle& handle, std::string& text, std::size_t limit = kNoLimit) {
  text.clear();
  for (;;) {
    if (text.size() > limit) return {kLqErrFile, "more than " + std::to_string(limit) + " bytes"};
    const std::size_t have = text.size();
    text.resize(have + kReadPiece);
    std::uint32_t got = 0;
    CWmError error = FXFile::LQReadFile(handle, text.data() + have, kReadPiece, got);
    text.resize(have + got);
    if (error.IsError() || got == 0) return error;
  }
}

std::string directoryOf(const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path().string();
  return directory.empty() ? "." : directory;
}

// The rename itself is on disk only once its directory is.
CWmError syncDirectory(const std::string& directory) {
  const auto_handle handle(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!handle.isValid() || ::fsync(handle.get()) != 0) return failed(directory);
  return {};
}

}  // namespace

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

CWmError readWhole(const std::string& path, std::string& text) {
  auto_handle handle;
  CWmError error = openForReading(path, handle);
  return error.IsError() ? error : readOn(handle, text);
}

CWmError readEnd(const std::string& path, std::size_t bytes, std::string& text) {
  auto_handle handle;
  CWmError error = openForReading(path, handle);
  if (error.IsError()) return error;
  const off_t size = ::lseek(handle.get(), 0, SEEK_END);
  const off_t start = size > static_cast<off_t>(bytes) ? size - static_cast<off_t>(bytes) : 0;
  if (size < 0 || ::lseek(handle.get(), start, SEEK_SET) < 0) return failed(path);
  return readOn(handle, text);
}

CWmError replace(const std::string& path, const std::string& text) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    return {kLqErrFile, path + ": not written, since it is something else than a file"};
  const std::string directory = directoryOf(path);
  std::string temporary = directory + kTemporaryName;
  const auto_handle handle(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!handle.isValid()) return failed(temporary);
  std::uint64_t written = 0;
  CWmError error = FXFile::LQWriteFile(handle, text.data(), text.size(), written);
  if (!error.IsError() && (::fsync(handle.get()) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0))
    error = failed(path);
  if (!error.IsError()) return syncDirectory(directory);
  ::unlink(temporary.c_str());
  return error;
}

CWmError create(const std::string& path, const std::string& text) {
  const auto_handle handle(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
  if (!handle.isValid()) return failed(path);
  std::uint64_t written = 0;
  CWmError error = FXFile::LQWriteFile(handle, text.data(), text.size(), written);
  if (!error.IsError() && ::fsync(handle.get()) != 0) error = failed(path);
  if (error.IsError()) ::unlink(path.c_str());
  return error;
}

CWmError readInput(std::size_t limit, std::string& text) {
  const auto_handle handle(::dup(STDIN_FILENO));
  if (!handle.isValid()) return failed("standard input");
  CWmError error = readOn(handle, text, limit);
  if (error.IsError()) return {error.GetCode(), std::string("standard input: ") + error.AsString()};
  return {};
}

CWmError status(const std::string& path, std::uintmax_t& bytes, std::time_t& time) {
  struct stat found {};
  if (::stat(path.c_str(), &found) != 0) return failed(path);
  bytes = static_cast<std::uintmax_t>(found.st_size);
  time = found.st_mtime;
  return {};
}

CWmError appendLine(const std::string& path, const std::string& line) {
  const auto_handle handle(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
  if (!handle.isValid()) return failed(path);
  const std::string whole = line + '\n';
  std::uint64_t written = 0;
  return FXFile::LQWriteFile(handle, whole.data(), whole.size(), written);
}

CWmError makeDirectory(const std::string& path) {
  std::error_code fault;
  if (std::filesystem::is_directory(path, fault)) return {};
  std::filesystem::create_directories(directoryOf(path), fault);
  if (::mkdir(path.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return failed(path);
  return {};
}

CWmError Lock::open(const std::string& path) {
  path_ = path;
  handle_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode));
  return handle_.isValid() ? CWmError() : failed(path);
}

CWmError Lock::acquire(const std::string& path) {
  CWmError error = open(path);
  if (error.IsError()) return error;
  while (::flock(handle_.get(), LOCK_EX) != 0)
    if (errno != EINTR) return failed(path);
  return {};
}

CWmError Lock::tryAcquire(const std::string& path, bool& acquired) {
  acquired = false;
  CWmError error = open(path);
  if (error.IsError()) return error;
  acquired = ::flock(handle_.get(), LOCK_EX | LOCK_NB) == 0;
  return acquired || errno == EWOULDBLOCK ? CWmError() : failed(path);
}

CWmError Lock::write(const std::string& text) const {
  std::uint64_t written = 0;
  if (::ftruncate(handle_.get(), 0) != 0) return failed(path_);
  return FXFile::LQWriteFile(handle_, text.data(), text.size(), written);
}

}  // namespace file_access
