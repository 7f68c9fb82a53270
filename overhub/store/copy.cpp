#include "overhub/store/copy.h"

#include <fcntl.h>
#include <soci/soci.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/UtcText.h"
#include "overhub/store/change.h"
#include "overhub/store/file_access.h"
#include "overhub/store/revisions.h"
#include "overhub/store/schema.h"

namespace {

using soci::into;
using soci::use;

const std::string kCopyFact = "copy";  // when the copy was made; only in copies

// What a store can have given out since it was copied, with much to spare.
constexpr std::int64_t kRevisionGap = 1'000'000;
constexpr std::int64_t kClientIdGap = 1'000;
constexpr std::int64_t kHandOutGap = 1'000'000;
// How many more records a client's cache may hold since than it had been handed at most.
constexpr std::int64_t kMoreRecords = 2'000;

CWmError failed(const std::string& path) {
  return {kLqErrFile, path + ": " + std::system_category().message(errno)};
}

CWmError isThere(const std::string& file) {
  return {kLqErrRequestRefused, file + " is there already, and no backup replaces another; name a new file"};
}

// A file that is gone when this is, unless it was kept.
class Temporary {
 public:
  explicit Temporary(std::string path) : path_(std::move(path)) {}
  ~Temporary() {
    if (isMade_) ::unlink(path_.c_str());
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  const std::string& path() const { return path_; }
  void keep() { isMade_ = false; }
  // As the one who makes it.
  CWmError make(const std::string& text) {
    CWmError error = file_access::create(path_, text);
    isMade_ = !error.IsError();
    return error;
  }

 private:
  std::string path_;
  bool isMade_ = false;
};

// Fills the empty file, and marks it.
CWmError fill(const Store& store, const std::string& file) {
  const Engine& engine = store.database().engine();
  try {
    // An empty file takes it in, one that holds something is refused.
    *engine.connect() << "VACUUM INTO :file", use(file);
  } catch (const std::exception& fault) {
    return {kLqErrFile, file + ": the store cannot be copied; " + engine.explain(fault)};
  }
  const Database copy(sqliteEngine(file));
  return copy.write([&copy](soci::session& session) -> CWmError {
    markAsCopy(session, lqtext::utcText(copy.now(session)));
    return {};
  });
}

CWmError syncFolder(const std::string& file) {
  const std::string folder = std::filesystem::path(file).parent_path().string();
  const auto_handle handle(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle.isValid() && ::fsync(handle.get()) == 0 ? CWmError() : failed(folder);
}

// Takes the counter's row, so that of several who open a copy one begins the epoch.
std::int64_t raise(soci::session& session, const std::string& counter, std::int64_t gap) {
  std::int64_t value = 0;
  session << "UPDATE counters SET value = value WHERE name = :name", use(counter);
  session << "SELECT value FROM counters WHERE name = :name", use(counter), into(value);
  value = value > kOpen - gap ? kOpen : value + gap;
  session << "UPDATE counters SET value = :value WHERE name = :name", use(value), use(counter);
  return value;
}

std::string timeOfCopy(soci::session& session) {
  std::string time;
  session << "SELECT value FROM facts WHERE name = :name", use(kCopyFact), into(time);
  return time;
}

}  // namespace

CWmError copyStore(const Store& store, const std::string& wanted) {
  if (wanted.empty()) return {kLqErrArgument, "the file's name is missing"};
  const std::string file = std::filesystem::absolute(wanted).string();
  Temporary key(keyOfCopy(file));
  Temporary part(file + ".part-" + newSessionKeyHex().substr(0, 8));
  for (const std::string& target : {file, key.path()})
    if (file_access::exists(target)) return isThere(target);
  CWmError error = part.make("");
  if (!error.IsError()) error = fill(store, part.path());
  std::string keyText;
  if (!error.IsError()) error = file_access::readWhole(store.keyFile(), keyText);
  if (!error.IsError()) error = key.make(keyText);
  explicit_bzero(keyText.data(), keyText.size());
  if (error.IsError()) return error;
  if (::link(part.path().c_str(), file.c_str()) != 0) return errno == EEXIST ? isThere(file) : failed(file);
  key.keep();
  return syncFolder(file);
}

void markAsCopy(soci::session& session, const std::string& time) {
  session << "INSERT INTO facts (name, value) VALUES (:name, :value)", use(kCopyFact), use(time);
}

CWmError beginEpoch(const Database& database, std::string& notice) {
  std::string time;
  CWmError error = database.read([&time](soci::session& session) -> CWmError {
    time = timeOfCopy(session);
    return {};
  });
  if (error.IsError() || time.empty()) return error;
  error = database.engine().prepare();
  if (error.IsError()) return error;
  const std::string operation = newSessionKeyHex();
  bool isOthers = false;
  error = database.writeOnce([&](soci::session& session) -> CWmError {
    const std::int64_t revision = raise(session, kRevisionCounter, kRevisionGap);
    time = timeOfCopy(session);
    isOthers = time.empty();  // or an attempt of ours whose answer was lost
    if (isOthers) return {kLqErrRequestRefused, "it has been begun"};
    raise(session, kClientIdCounter, kClientIdGap);
    session << "UPDATE contacts SET base = 0, proving = 0, proven = 0, is_cache_unknown = 1,"
               " handed = handed + :gap, most_records = most_records + :more",
        use(kHandOutGap), use(kMoreRecords);
    session << "DELETE FROM facts WHERE name = :name", use(kCopyFact);
    const std::string command = "restore of the copy of " + time;
    writeRevision(session,
                  {revision, database.now(session), "overhub", "", command, HostReport::kDemandNothing},
                  operation);
    notice = "this store is the copy of " + time + ", restored: revisions go on from " +
             std::to_string(revision) +
             ", and each client is handed all removals that it may need until it has acknowledged two passes "
             "in a row";
    return {};
  });
  return isOthers ? CWmError() : error;
}
