// The file layer over open, read, write and unlink. Replacing a file is in file_replacement.cpp, who may
// write one in trusted_path.cpp.
#include "lqregistry/FXFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "platform/base/file_replacement.h"

namespace {

constexpr std::size_t kReadPiece = 64U << 10;

std::string nameOf(const auto_handle& handle) {
  char name[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(handle.get());
  const ssize_t length = ::readlink(link.c_str(), name, sizeof name);
  return length > 0 ? std::string(name, static_cast<std::size_t>(length)) : "the file";
}

struct DirectoryCloser {
  void operator()(DIR* listing) const { ::closedir(listing); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// Listed as a whole before anything is deleted, since a listing that shrinks meanwhile may skip entries.
CWmError listMatching(const Directory& listing, const std::string& directory, const std::string& pattern,
                      std::vector<std::string>& names) {
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(listing.get());  // NOLINT(concurrency-mt-unsafe): own listing
    if (entry == nullptr) return errno == 0 ? CWmError() : lqfile::errorOf("reading " + directory);
    if (::fnmatch(pattern.c_str(), entry->d_name, FNM_PERIOD) == 0) names.emplace_back(entry->d_name);
  }
}

// A file that is gone already is what was wanted.
CWmError deleteRegularFile(const Directory& listing, const std::string& directory, const std::string& name) {
  struct stat status {};
  const int parent = ::dirfd(listing.get());
  const bool found = ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  if (found && !S_ISREG(status.st_mode)) return {};
  if (found && ::unlinkat(parent, name.c_str(), 0) == 0) return {};
  return errno == ENOENT ? CWmError() : lqfile::errorOf("deleting \"" + name + "\" in " + directory);
}

// Of several faults the first one is told.
void keepFirst(CWmError& error, CWmError next) {
  if (!error.IsError()) error = std::move(next);
}

}  // namespace

CWmError lqfile::writeAll(const auto_handle& handle, const void* data, std::uint64_t size,
                          std::uint64_t& bytesWritten) {
  bytesWritten = 0;
  // An appending handle stands at the start until it has written; what it writes begins at the end.
  const bool appends = (::fcntl(handle.get(), F_GETFL) & O_APPEND) != 0;
  const off_t start = ::lseek(handle.get(), 0, appends ? SEEK_END : SEEK_CUR);
  struct stat before {};
  const bool isAtEnd = start >= 0 && ::fstat(handle.get(), &before) == 0 && before.st_size == start;
  for (std::string_view rest(static_cast<const char*>(data), size); !rest.empty();) {
    const ssize_t put = ::write(handle.get(), rest.data(), rest.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) {
      CWmError error = errorOf("writing " + nameOf(handle));
      // Half of it would be worse than none: a reader could take it for the whole. What was there is left.
      if (isAtEnd && ::ftruncate(handle.get(), start) == 0) bytesWritten = 0;
      return error;
    }
    rest.remove_prefix(static_cast<std::size_t>(put));
    bytesWritten = size - rest.size();
  }
  return {};
}

void auto_handle::reset(int descriptor) {
  // Before the descriptor, whose lock says that the temporary file is in use.
  replacement_.reset();
  if (isValid()) ::close(descriptor_);
  descriptor_ = descriptor;
}

CWmError FXFile::LQCreateFile(const std::string& path, std::uint32_t access, std::uint32_t,
                              const void* securityAttributes, std::uint32_t disposition, std::uint32_t,
                              const void* templateFile, auto_handle& handle) {
  if (securityAttributes != nullptr || templateFile != nullptr)
    return {kLqErrFile, path + ": security attributes and template have no meaning here"};
  if (access != kGenericRead && access != kGenericWrite)
    return {kLqErrFile, path + ": unknown access code " + std::to_string(access)};
  if (disposition == kOpenExisting)
    return lqfile::openRegular(path, access == kGenericRead ? O_RDONLY : O_WRONLY, handle);
  if (disposition != kCreateAlways)
    return {kLqErrFile, path + ": unknown disposition code " + std::to_string(disposition)};
  if (access == kGenericRead) return {kLqErrFile, path + ": a new file is opened for writing only"};
  return FileReplacement::begin(path, handle);
}

CWmError FXFile::LQReadFile(const auto_handle& handle, void* buffer, std::uint32_t size,
                            std::uint32_t& bytesRead) {
  bytesRead = 0;
  ssize_t got = 0;
  do {
    got = ::read(handle.get(), buffer, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return lqfile::errorOf("reading " + nameOf(handle));
  bytesRead = static_cast<std::uint32_t>(got);
  return {};
}

CWmError FXFile::LQWriteFile(const auto_handle& handle, const void* data, std::uint64_t size,
                             std::uint64_t& bytesWritten) {
  CWmError error = lqfile::writeAll(handle, data, size, bytesWritten);
  FileReplacement* const replacement = handle.replacement();
  if (replacement == nullptr || replacement->isPlaced()) return error;
  if (!error.IsError()) error = replacement->place(handle);
  if (error.IsError()) {
    bytesWritten = 0;
    replacement->placeEmpty(handle);
  }
  return error;
}

CWmError FXFile::ReadToEnd(const auto_handle& handle, std::string& text, std::size_t limit) {
  text.clear();
  for (;;) {
    if (text.size() > limit)
      return {kLqErrFile, nameOf(handle) + ": more than " + std::to_string(limit) + " bytes"};
    const std::size_t have = text.size();
    text.resize(have + kReadPiece);
    std::uint32_t got = 0;
    CWmError error = LQReadFile(handle, text.data() + have, kReadPiece, got);
    text.resize(have + got);
    if (error.IsError() || got == 0) return error;
  }
}

CWmError FXFile::ReadContents(const std::string& path, std::string& text, std::size_t limit) {
  text.clear();
  auto_handle handle;
  CWmError error = lqfile::openRegular(path, O_RDONLY, handle);
  return error.IsError() ? error : ReadToEnd(handle, text, limit);
}

CWmError FXFile::ReplaceContents(const std::string& path, std::string_view text) {
  auto_handle handle;
  CWmError error = FileReplacement::begin(path, handle);
  std::uint64_t written = 0;
  if (!error.IsError()) error = lqfile::writeAll(handle, text.data(), text.size(), written);
  return error.IsError() ? error : handle.replacement()->place(handle);
}

CWmError FXFile::AppendContents(const std::string& path, std::string_view text) {
  auto_handle handle;
  CWmError error = lqfile::openRegular(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, handle);
  if (error.IsError()) return error;
  // Whoever cuts a failed write off again must not cut off what another one has added meanwhile.
  while (::flock(handle.get(), LOCK_EX) != 0)
    if (errno != EINTR) return lqfile::errorOf(path);
  std::uint64_t written = 0;
  return lqfile::writeAll(handle, text.data(), text.size(), written);
}

CWmError FXFile::DeleteMatchingFiles(const std::string& directory, const std::string& pattern,
                                     std::uint32_t flags) {
  if (flags != 0) return {kLqErrFile, directory + ": unknown deletion flags " + std::to_string(flags)};
  const Directory listing(::opendir(directory.c_str()));
  if (listing == nullptr) return lqfile::errorOf(directory);
  std::vector<std::string> names;
  CWmError error = listMatching(listing, directory, pattern, names);
  for (const std::string& name : names) keepFirst(error, deleteRegularFile(listing, directory, name));
  return error;
}

bool FXPath::Append(std::string& directory, const std::string& name) {
  const bool needsSeparator = !directory.empty() && directory.back() != '/';
  if (directory.size() + (needsSeparator ? 1 : 0) + name.size() >= PATH_MAX) return false;
  if (needsSeparator) directory += '/';
  directory += name;
  return true;
}
