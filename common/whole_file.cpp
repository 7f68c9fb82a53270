#include "common/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "lqregistry/FXFile.h"

namespace programs {

namespace {

constexpr std::size_t kReadPiece = 64U << 10;
constexpr const char* kTemporarySuffix = ".XXXXXX";

CWmError failed(const std::string& path) {
  return {kLqErrFile, path + ": " + std::system_category().message(errno)};
}

CWmError writeToDisk(const auto_handle& handle, const std::string& path, const std::string& text) {
  std::uint64_t written = 0;
  CWmError error = FXFile::LQWriteFile(handle, text.data(), text.size(), written);
  if (!error.IsError() && ::fsync(handle.get()) != 0) error = failed(path);
  return error;
}

// The rename itself is on disk only once its directory is.
CWmError syncDirectoryOf(const std::string& path) {
  std::string directory = std::filesystem::path(path).parent_path().string();
  if (directory.empty()) directory = ".";
  const auto_handle handle(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle.isValid() && ::fsync(handle.get()) == 0 ? CWmError() : failed(directory);
}

}  // namespace

CWmError readWholeFile(const std::string& path, std::string& text) {
  text.clear();
  auto_handle handle;
  CWmError error = FXFile::LQCreateFile(path, FXFile::kGenericRead, FXFile::kShareRead, nullptr,
                                        FXFile::kOpenExisting, FXFile::kAttributeNormal, nullptr, handle);
  for (std::uint32_t got = 1; !error.IsError() && got != 0;) {
    const std::size_t have = text.size();
    text.resize(have + kReadPiece);
    error = FXFile::LQReadFile(handle, text.data() + have, kReadPiece, got);
    text.resize(have + got);
  }
  return error;
}

CWmError replaceWholeFile(const std::string& path, const std::string& text) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    return {kLqErrFile, path + ": not written, since it is something else than a file"};
  std::string temporary = path + kTemporarySuffix;
  const auto_handle handle(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!handle.isValid()) return failed(path);
  CWmError error = writeToDisk(handle, temporary, text);
  if (!error.IsError() && std::rename(temporary.c_str(), path.c_str()) != 0) error = failed(path);
  if (!error.IsError()) return syncDirectoryOf(path);
  ::unlink(temporary.c_str());
  return error;
}

}  // namespace programs
