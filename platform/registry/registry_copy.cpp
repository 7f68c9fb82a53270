// Copying a registry file with its log into memory, by way of a temporary folder of this process alone.
#include "platform/registry/registry_copy.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace lqregistry {

namespace {

namespace fs = std::filesystem;

constexpr std::array<const char*, 2> kParts = {"", "-wal"};
constexpr const char* kCopyName = "registry.db";
// How often a copy is begun anew because somebody wrote to the file meanwhile, through another mount say.
constexpr int kAttempts = 5;

// A folder that only this user can look into, removed with everything in it at the end.
class PrivateFolder {
 public:
  PrivateFolder() {
    std::error_code error;
    std::string name = (fs::temp_directory_path(error) / "lqregistry.XXXXXX").string();
    if (!error && mkdtemp(name.data()) != nullptr)
      path_ = name;
    else
      reason_ = error ? "the folder for temporary files, which TMPDIR names: " + error.message()
                      : name + ": " + std::generic_category().message(errno);
  }
  ~PrivateFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  const fs::path& path() const { return path_; }
  const std::string& reason() const { return reason_; }

 private:
  fs::path path_;
  std::string reason_;
};

// True when the copy is of one moment.
bool copyParts(const std::string& path, const std::string& copy, FileStamp& stamp, std::error_code& error) {
  stamp = stampOf(path);
  for (const char* suffix : kParts) {
    const std::string target = copy + suffix;
    fs::remove(target, error);
    if (!fs::exists(path + suffix, error) && !error) continue;
    if (!error) fs::copy_file(path + suffix, target, error);
    // The copy is written to when the log is played back, whatever the rights of the original.
    if (!error) fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write, error);
    if (error) return false;
  }
  return stampOf(path) == stamp;
}

int readIntoMemory(const std::string& copy, sqlite3*& database) {
  sqlite3* source = nullptr;
  int result = sqlite3_open_v2(copy.c_str(), &source, SQLITE_OPEN_READWRITE, nullptr);
  if (result == SQLITE_OK)
    result = sqlite3_open_v2(":memory:", &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  sqlite3_backup* backup =
      result == SQLITE_OK ? sqlite3_backup_init(database, "main", source, "main") : nullptr;
  if (backup != nullptr) sqlite3_backup_step(backup, -1);
  if (result == SQLITE_OK)
    result = backup == nullptr ? sqlite3_errcode(database) : sqlite3_backup_finish(backup);
  sqlite3_close(source);
  return result;
}

Outcome notCopied(const std::string& why) {
  return {kRegUnavailable, "it lies where nothing can be written, and a copy to read failed: " + why};
}

}  // namespace

FileStamp stampOf(const std::string& path) {
  FileStamp stamp;
  for (std::size_t i = 0; i < kParts.size(); ++i) {
    struct stat info {};
    if (stat((path + kParts[i]).c_str(), &info) == 0)
      stamp.parts[i] = {info.st_ino, info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
  }
  return stamp;
}

Outcome copyIntoMemory(const std::string& path, sqlite3*& database, FileStamp& stamp) {
  const PrivateFolder folder;
  if (!folder.reason().empty()) return notCopied(folder.reason());
  const std::string copy = (folder.path() / kCopyName).string();
  for (int attempt = 1;; ++attempt) {
    std::error_code error;
    if (copyParts(path, copy, stamp, error)) {
      const int result = readIntoMemory(copy, database);
      return result == SQLITE_OK ? Outcome{} : notCopied(sqlite3_errstr(result));
    }
    if (error || attempt == kAttempts)
      return notCopied(error ? copy + ": " + error.message() : "it is being written to");
  }
}

}  // namespace lqregistry
