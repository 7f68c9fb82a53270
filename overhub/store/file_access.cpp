#include "overhub/store/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace file_access {

namespace {

constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;

CWmError failed(const std::string& path) {
  return {kLqErrFile, path + ": " + std::system_category().message(errno)};
}

std::string directoryOf(const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path().string();
  return directory.empty() ? "." : directory;
}

}  // namespace

CWmError readWord(const std::string& path, std::string& word) {
  CWmError error = readWhole(path, word);
  while (!word.empty() && (word.back() == '\n' || word.back() == '\r' || word.back() == ' ')) word.pop_back();
  return error;
}

bool exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

CWmError readEnd(const std::string& path, std::size_t bytes, std::string& text) {
  auto_handle handle;
  CWmError error = FXFile::LQCreateFile(path, FXFile::kGenericRead, FXFile::kShareRead, nullptr,
                                        FXFile::kOpenExisting, FXFile::kAttributeNormal, nullptr, handle);
  if (error.IsError()) return error;
  const off_t size = ::lseek(handle.get(), 0, SEEK_END);
  const off_t start = size > static_cast<off_t>(bytes) ? size - static_cast<off_t>(bytes) : 0;
  if (size < 0 || ::lseek(handle.get(), start, SEEK_SET) < 0) return failed(path);
  return FXFile::ReadToEnd(handle, text);
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

CWmError replaceAll(const std::string& directory, const std::map<std::string, std::string>& files) {
  for (const auto& [path, text] : files) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) return failed(path);
    const auto_handle handle(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!handle.isValid()) return failed(path);
    std::uint64_t written = 0;
    CWmError error = FXFile::LQWriteFile(handle, text.data(), text.size(), written);
    if (error.IsError()) return error;
  }
  const auto_handle handle(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle.isValid() && ::syncfs(handle.get()) == 0 ? CWmError() : failed(directory);
}

CWmError readInput(std::size_t limit, std::string& text) {
  const auto_handle handle(::dup(STDIN_FILENO));
  if (!handle.isValid()) return failed("standard input");
  CWmError error = FXFile::ReadToEnd(handle, text, limit);
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
  return FXFile::AppendContents(path, line + '\n');
}

CWmError makeDirectory(const std::string& path) {
  std::error_code fault;
  if (std::filesystem::is_directory(path, fault)) return {};
  std::filesystem::create_directories(directoryOf(path), fault);
  if (::mkdir(path.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return failed(path);
  return {};
}

}  // namespace file_access
