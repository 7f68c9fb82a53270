// The file layer over open, read and write.
#include "platform/FXFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

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
  while (bytesWritten < size) {
    const ssize_t put =
        ::write(handle.get(), static_cast<const char*>(data) + bytesWritten, size - bytesWritten);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return fileError("writing " + nameOf(handle));
    bytesWritten += static_cast<std::uint64_t>(put);
  }
  return {};
}

bool FXPath::Append(std::string& directory, const std::string& name) {
  const bool needsSeparator = !directory.empty() && directory.back() != '/';
  if (directory.size() + (needsSeparator ? 1 : 0) + name.size() >= PATH_MAX) return false;
  if (needsSeparator) directory += '/';
  directory += name;
  return true;
}
