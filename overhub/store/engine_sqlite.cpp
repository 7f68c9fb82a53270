#include <fcntl.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "overhub/store/engine.h"

namespace {

// Of SQLite's result codes those that a person can do something about; their values are part of its format.
constexpr int kBusy = 5;
constexpr int kFull = 13;
constexpr int kReadOnly = 8;
constexpr int kInputOutput = 10;
constexpr int kCorrupt = 11;
constexpr int kCannotOpen = 14;
constexpr int kNoDatabase = 26;
constexpr int kPrimaryCode = 0xff;  // what of an extended code is the code

// Longer than any change of ten thousand machines holds the file.
constexpr const char* kWaitSeconds = "60";

int codeOf(const std::exception& fault) {
  const auto* const ours = dynamic_cast<const soci::sqlite3_soci_error*>(&fault);
  return ours == nullptr ? 0 : ours->result() & kPrimaryCode;
}

// Not what(): that has the values of the statement in it, and some are secrets. Nor the function of the
// library's that noticed, which the text begins with.
std::string reasonOf(const std::exception& fault) {
  const auto* const general = dynamic_cast<const soci::soci_error*>(&fault);
  if (general == nullptr) return fault.what();
  std::string reason = general->get_error_message();
  const std::size_t end = reason.find(": ");
  if (end != std::string::npos && reason.find("::") < end) reason.erase(0, end + 2);
  return reason;
}

// As a URI, which alone can say that a file that is not there must not be made; any path can be written so.
std::string uriOf(const std::string& path) {
  std::string uri = "file:";
  for (const char byte : path) {
    if (std::isalnum(static_cast<unsigned char>(byte)) != 0 || std::strchr("/._-", byte) != nullptr) {
      uri += byte;
    } else {
      std::array<char, 4> code{};
      std::snprintf(code.data(), code.size(), "%%%02X", static_cast<unsigned char>(byte));
      uri += code.data();
    }
  }
  return uri;
}

class Sqlite : public Engine {
 public:
  explicit Sqlite(const std::string& file) : Engine(file) {}

  std::unique_ptr<soci::session> connect() const override {
    auto session = std::make_unique<soci::session>(
        *soci::factory_sqlite3(), "dbname=" + uriOf(place()) + "?mode=rw timeout=" + kWaitSeconds);
    *session << "PRAGMA synchronous = FULL";
    return session;
  }

  CWmError check() const override {
    if (::access(place().c_str(), F_OK) == 0) return {};
    if (errno == ENOENT) {
      return {kLqErrFile, place() +
                              ": there is no store; name the right one with --data or --store, or make "
                              "one with \"overhub add-client NAME\""};
    }
    return {kLqErrFile, place() + ": " + std::generic_category().message(errno)};
  }

  CWmError prepare() const override {
    const int file = ::open(place().c_str(), O_CREAT | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) return {kLqErrFile, place() + ": " + std::generic_category().message(errno)};
    ::close(file);
    try {
      // The mode stays with the file. Readers do not wait for writers in it, nor the other way round.
      *connect() << "PRAGMA journal_mode = WAL";
      return {};
    } catch (const std::exception& fault) {
      return {kLqErrFile, explain(fault)};
    }
  }

  // Whoever finds the file busy has waited for it already.
  Fault faultOf(const std::exception&) const override { return Fault::kOther; }

  std::string explain(const std::exception& fault) const override {
    std::string text = place() + ": " + reasonOf(fault);
    switch (codeOf(fault)) {
      case kBusy:
        return text + "; another overhub has held it for more than " + kWaitSeconds + " s";
      case kFull:
      case kInputOutput:
        return text + "; nothing was changed, see that its disk is sound and has room";
      case kReadOnly:
      case kCannotOpen:
        return text + "; see that this user may write the file and its directory";
      case kNoDatabase:
        return text + "; it is no store of overhub's";
      case kCorrupt:
        return text + "; it is damaged, put a backup in its place";
      default:
        return text;
    }
  }

  std::string doubt(soci::session&) const override { return {}; }

  void commit(soci::session& session) const override { session << "COMMIT"; }

  const char* beginReading() const override { return "BEGIN"; }
  // One that reads first and writes then would fail beside another writer instead of waiting for it.
  const char* beginWriting() const override { return "BEGIN IMMEDIATE"; }
  bool writesOneAtATime() const override { return true; }
  const char* tables() const override {
    return "SELECT COALESCE(SUM(CASE WHEN name = 'counters' THEN 1 ELSE 0 END), 0), COUNT(*) FROM "
           "sqlite_master";
  }
  const char* now() const override { return "CAST(strftime('%s', 'now') AS INTEGER)"; }
};

}  // namespace

std::unique_ptr<Engine> sqliteEngine(const std::string& file) {
  return std::make_unique<Sqlite>(file);
}
