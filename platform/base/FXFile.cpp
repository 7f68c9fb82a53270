// The file layer over open, read, write and unlink.
#include "lqregistry/FXFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr mode_t kFileMode = 0600;

CWmError fileError(const std::string& what) {
  return {kLqErrFile, what + ": " + std::strerror(errno)};  // NOLINT(concurrency-mt-unsafe): glibc's is safe
}

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
    if (entry == nullptr) return errno == 0 ? CWmError() : fileError("reading " + directory);
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
  return errno == ENOENT ? CWmError() : fileError("deleting \"" + name + "\" in " + directory);
}

}  // namespace

void auto_handle::reset(int descriptor) {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = descriptor;
}

CWmError FXFile::LQCreateFile(const std::string& path, std::uint32_t access, std::uint32_t,
                              const void* securityAttributes, std::uint32_t disposition, std::uint32_t,
                              const void* templateFile, auto_handle& handle) {
  if (securityAttributes != nullptr || templateFile != nullptr)
    return {kLqErrFile, path + ": security attributes and template have no meaning here"};
  int flags = O_CLOEXEC;
  if (access == kGenericRead) {
    flags |= O_RDONLY;
  } else if (access == kGenericWrite) {
    flags |= O_WRONLY;
  } else {
    return {kLqErrFile, path + ": unknown access code " + std::to_string(access)};
  }
  if (disposition == kCreateAlways) {
    flags |= O_CREAT | O_TRUNC;
  } else if (disposition != kOpenExisting) {
    return {kLqErrFile, path + ": unknown disposition code " + std::to_string(disposition)};
  }
  const int descriptor = ::open(path.c_str(), flags, kFileMode);
  if (descriptor < 0) return fileError(path);
  handle.reset(descriptor);
  return {};
}

CWmError FXFile::LQReadFile(const auto_handle& handle, void* buffer, std::uint32_t size,
                            std::uint32_t& bytesRead) {
  bytesRead = 0;
  ssize_t got = 0;
  do {
    got = ::read(handle.get(), buffer, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return fileError("reading " + nameOf(handle));
  bytesRead = static_cast<std::uint32_t>(got);
  return {};
}

CWmError FXFile::LQWriteFile(const auto_handle& handle, const void* data, std::uint64_t size,
                             std::uint64_t& bytesWritten) {
  bytesWritten = 0;
  const off_t start = ::lseek(handle.get(), 0, SEEK_CUR);
  while (bytesWritten < size) {
    const ssize_t put =
        ::write(handle.get(), static_cast<const char*>(data) + bytesWritten, size - bytesWritten);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) {
      CWmError error = fileError("writing " + nameOf(handle));
      // Half of it would be worse than none: a reader could take it for the whole.
      if (start >= 0 && ::ftruncate(handle.get(), start) == 0) bytesWritten = 0;
      return error;
    }
    bytesWritten += static_cast<std::uint64_t>(put);
  }
  return {};
}

CWmError FXFile::DeleteMatchingFiles(const std::string& directory, const std::string& pattern,
                                     std::uint32_t flags) {
  if (flags != 0) return {kLqErrFile, directory + ": unknown deletion flags " + std::to_string(flags)};
  const Directory listing(::opendir(directory.c_str()));
  if (listing == nullptr) return fileError(directory);
  std::vector<std::string> names;
  CWmError first = listMatching(listing, directory, pattern, names);
  for (const std::string& name : names) {
    CWmError error = deleteRegularFile(listing, directory, name);
    if (!first.IsError()) first = std::move(error);
  }
  return first;
}

bool FXPath::Append(std::string& directory, const std::string& name) {
  const bool needsSeparator = !directory.empty() && directory.back() != '/';
  if (directory.size() + (needsSeparator ? 1 : 0) + name.size() >= PATH_MAX) return false;
  if (needsSeparator) directory += '/';
  directory += name;
  return true;
}
