#include "common/program_start.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <system_error>

namespace programs {

namespace {

constexpr mode_t kPrivate = 077;
constexpr uid_t kRoot = 0;

// Whose the path is, or else whose the directory is that would hold it.
bool findOwner(const std::string& path, struct stat& status) {
  if (path.empty()) return false;
  if (::stat(path.c_str(), &status) == 0) return true;
  if (errno != ENOENT) return false;
  return ::stat((std::filesystem::path(".") / path).parent_path().c_str(), &status) == 0;
}

// All three ids of each kind, so that there is no way back, and the groups of that user instead of root's. A
// user id without a name has no groups but the file's.
bool become(uid_t user, gid_t group) {
  const passwd* const entry = ::getpwuid(user);  // NOLINT(concurrency-mt-unsafe): before any thread runs
  if (entry != nullptr) group = entry->pw_gid;
  const bool hasGroups =
      entry != nullptr ? ::initgroups(entry->pw_name, group) == 0 : ::setgroups(0, nullptr) == 0;
  return hasGroups && ::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0 &&
         ::geteuid() == user && ::getegid() == group;
}

}  // namespace

void beginProgram() {
  ::umask(kPrivate);
  std::signal(SIGXFSZ, SIG_IGN);
}

CWmError becomeServiceUser(const std::vector<std::string>& paths) {
  if (::geteuid() != kRoot) return {};
  for (const std::string& path : paths) {
    struct stat status {};
    if (!findOwner(path, status) || status.st_uid == kRoot) continue;
    if (become(status.st_uid, status.st_gid)) return {};
    return {kLqErrFile, path + ": belongs to user " + std::to_string(status.st_uid) +
                            ", which this process cannot become: " + std::generic_category().message(errno)};
  }
  return {};
}

}  // namespace programs
