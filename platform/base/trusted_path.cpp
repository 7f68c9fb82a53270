// Who could have written a file: the walk along its path, link by link, that FXFile::CheckTrusted makes.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <vector>

#include "platform/base/file_replacement.h"

namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;
constexpr int kMaxLinks = 40;  // as many as the system follows

// A walk from the root to a file. `at` never holds a link or "..", so what is looked at is what is meant.
class Walk {
 public:
  explicit Walk(const std::string& path) { push(path); }

  CWmError run() {
    CWmError error = check("/", rest_.empty() ? Place::kOwn : Place::kAbove);
    while (!error.IsError() && !rest_.empty()) error = step();
    return error;
  }

 private:
  enum class Place { kAbove, kOwn, kLink };

  // The components of `path` come before those that are left.
  void push(const std::string& path) {
    std::size_t end = path.size();
    while (end > 0) {
      const std::size_t separator = path.rfind('/', end - 1);
      const std::size_t start = separator == std::string::npos ? 0 : separator + 1;
      if (start < end) rest_.push_back(path.substr(start, end - start));
      end = separator == std::string::npos ? 0 : separator;
    }
  }

  bool isLast() const { return rest_.size() <= 1; }

  CWmError step() {
    const std::string name = rest_.back();
    if (name == ".." || name == ".") {
      if (name == "..") at_.resize(at_.empty() ? 0 : at_.rfind('/'));
      rest_.pop_back();
      return rest_.empty() ? check(at_.empty() ? "/" : at_, Place::kOwn) : CWmError();
    }
    const std::string next = at_ + '/' + name;
    struct stat status {};
    // The directory of the file itself; also that of a link in the file's place. A directory is its own.
    if (isLast() && !(::stat(next.c_str(), &status) == 0 && S_ISDIR(status.st_mode))) {
      CWmError error = check(at_.empty() ? "/" : at_, Place::kOwn);
      if (error.IsError()) return error;
    }
    if (::lstat(next.c_str(), &status) != 0) {
      rest_.clear();
      return errno == ENOENT || errno == ENOTDIR ? CWmError() : lqfile::errorOf(next);
    }
    if (S_ISLNK(status.st_mode)) return follow(next);
    CWmError error = check(next, isLast() ? Place::kOwn : Place::kAbove);
    at_ = next;
    rest_.pop_back();
    return error;
  }

  CWmError follow(const std::string& link) {
    CWmError error = check(link, Place::kLink);
    if (error.IsError()) return error;
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    if (length < 0) return lqfile::errorOf(link);
    if (++links_ > kMaxLinks) return {kLqErrFile, link + ": too many links"};
    if (target[0] == '/') at_.clear();
    rest_.pop_back();
    push(std::string(target.data(), static_cast<std::size_t>(length)));
    return {};
  }

  static CWmError check(const std::string& path, Place place) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return lqfile::errorOf(path);
    const uid_t self = ::geteuid();
    if (status.st_uid != 0 && status.st_uid != self) {
      return {kLqErrFile, path + ": not trusted, since it belongs to user " + std::to_string(status.st_uid) +
                              "; give it to who runs this, with \"chown " + std::to_string(self) + " " +
                              path + "\", or run this as that user"};
    }
    const bool isTolerated =
        place == Place::kLink || (place == Place::kAbove && (status.st_mode & S_ISVTX) != 0);
    if (!isTolerated && (status.st_mode & kWritableByOthers) != 0) {
      return {kLqErrFile, path + ": not trusted, since others than its owner may write it; \"chmod go-w " +
                              path + "\" ends that"};
    }
    return {};
  }

  std::string at_;                 // where the walk has come to; empty is the root
  std::vector<std::string> rest_;  // what is left of the path, the next one last
  int links_ = 0;
};

}  // namespace

CWmError FXFile::CheckTrusted(const std::string& path) {
  if (path.starts_with('/')) return Walk(path).run();
  std::array<char, PATH_MAX> here{};
  if (::getcwd(here.data(), here.size()) == nullptr) return lqfile::errorOf(path);
  return Walk(std::string(here.data()) + '/' + path).run();
}
