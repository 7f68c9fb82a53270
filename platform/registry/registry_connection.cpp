// Opening a registry file, and the statements that are used on its tables (registry_schema.cpp).
#include "platform/registry/registry_connection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <thread>

#include "lqregistry/FXFile.h"
#include "platform/registry/registry_key.h"
#include "platform/registry/registry_schema.h"
#include "platform/registry/sqlite_calls.h"
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr mode_t kFileMode = 0600;  // SQLite gives its companion files the mode of the main one
constexpr mode_t kPermissionBits = 0777;
constexpr const char* kLogSuffix = "-wal";
constexpr const char* kIndexSuffix = "-shm";

constexpr std::chrono::milliseconds kModePoll{5};  // between two tries to set it
constexpr const char* kLogMode = "PRAGMA journal_mode = WAL";
constexpr const char* kSettings =
    "PRAGMA synchronous = FULL;"
    "PRAGMA foreign_keys = ON;";

constexpr std::array<const char*, static_cast<std::size_t>(Sql::kCount)> kStatements = {
    "BEGIN IMMEDIATE",
    "BEGIN",
    "COMMIT",
    "ROLLBACK",
    "SELECT id FROM keys WHERE path = ?1",
    "INSERT INTO keys (path, parent, name) VALUES (?1, ?2, ?3)",
    // ?2 and ?3 are the path followed by "/" and by the byte after it: between them lies all that is below.
    "DELETE FROM keys WHERE path = ?1 OR (path > ?2 AND path < ?3)",
    "SELECT name FROM keys WHERE parent = ?1 ORDER BY name",
    "SELECT k.id, v.type, v.data FROM keys k LEFT JOIN key_values v ON v.key_id = k.id AND v.name = ?2 "
    "WHERE k.path = ?1",
    "INSERT INTO key_values (type, data, key_id, name) VALUES (?1, ?2, ?3, ?4)",
    "UPDATE key_values SET type = ?1, data = ?2 WHERE key_id = ?3 AND name = ?4",
    "DELETE FROM key_values WHERE key_id = ?1 AND name = ?2",
    "SELECT name, type, data FROM key_values WHERE key_id = ?1 AND name > ?2 ORDER BY name LIMIT ?3",
};

std::string systemText(int error) {
  return std::generic_category().message(error);
}

Outcome unavailable(std::string reason) {
  return {kRegUnavailable, std::move(reason)};
}

// What lies at a path before SQLite touches it.
struct FileState {
  bool exists = false;
  bool empty = true;
};

Outcome inspect(const std::string& path, FileState& state) {
  struct stat info {};
  // The log first: when another process is just creating the registry, the file is written before it.
  const bool hasLog = stat((path + kLogSuffix).c_str(), &info) == 0 && info.st_size != 0;
  if (stat(path.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) return unavailable("it is not a file");
    state = {true, info.st_size == 0};
  } else if (errno != ENOENT) {
    return unavailable(systemText(errno));
  }
  // SQLite would take an empty file for a new database and delete the log, which may hold all there is.
  if (state.empty && hasLog)
    return unavailable(
        "it is missing or empty although its write-ahead log is not; restore it from a backup");
  return {};
}

Outcome createFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  if (file >= 0) {
    ::close(file);
  } else if (errno != EEXIST) {
    return unavailable("it cannot be created: " + systemText(errno));
  }
  return {};
}

// Companion files that were created while the registry was read-only are so, too, and would keep it read-only
// after its owner has made it writable again.
void alignCompanions(const std::string& path) {
  struct stat main {};
  if (::access(path.c_str(), W_OK) != 0 || stat(path.c_str(), &main) != 0) return;
  for (const char* suffix : {kLogSuffix, kIndexSuffix}) {
    const std::string companion = path + suffix;
    struct stat info {};
    if (lstat(companion.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        (info.st_mode & kPermissionBits) != (main.st_mode & kPermissionBits))
      chmod(companion.c_str(), main.st_mode & kPermissionBits);
  }
}

// SQLite refuses to read even an idle registry where it can neither find nor make the index of the log.
bool needsCopy(int result, const std::string& path) {
  return (result == SQLITE_CANTOPEN || result == SQLITE_READONLY) && ::access(path.c_str(), R_OK) == 0 &&
         ::access((path + kIndexSuffix).c_str(), W_OK) != 0 &&
         ::access(std::filesystem::path(path).parent_path().c_str(), W_OK) != 0;
}

}  // namespace

Outcome Connection::open(const std::string& path, Access access, std::chrono::milliseconds wait) {
  close();
  path_ = path;
  wait_ = wait;
  const CWmError error = FXFile::CheckTrusted(path);
  if (error.IsError()) return unavailable(error.AsString());
  // Asked for first: whoever is just making the registry makes the key last.
  const bool hasKey = lqsecret::keyFileExists(keyFileOf(path));
  FileState state;
  Outcome outcome = inspect(path, state);
  if (!outcome.ok()) return outcome;
  if (state.empty && hasKey && access == Access::kWriting) return orphanedKey(path);
  if (!state.exists) {
    if (access == Access::kReading) return {kRegKeyMissing, "the registry file does not exist"};
    outcome = createFile(path);
    if (!outcome.ok()) return outcome;
  }
  alignCompanions(path);
  outcome = openChecked(path, access, wait);
  if (!outcome.ok()) close();
  return outcome;
}

Outcome Connection::openChecked(const std::string& path, Access access, std::chrono::milliseconds wait) {
  // Read-write without "create": SQLite itself falls back to reading when the file allows no more.
  int result =
      sqlite3_open_v2(path.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (result != SQLITE_OK) return failure(result);
  setWait(database_, wait);

  Identity identity;
  result = identify(database_, identity);
  if (needsCopy(result, path)) {
    Outcome outcome = openCopy(path);
    if (!outcome.ok()) return outcome;
    result = identify(database_, identity);
  }
  if (result != SQLITE_OK) return failure(result);
  if (identity.blank()) {
    if (access == Access::kReading) return {kRegKeyMissing, "nothing was written to the registry file yet"};
  } else {
    Outcome outcome = checkFormat(identity);
    if (!outcome.ok()) return outcome;
  }

  if (isReadOnly()) return {};
  result = configure(identity.blank());
  if (result != SQLITE_OK) return failure(result);
  if (identity.blank()) return createSchema(database_, path);
  if (isKeySettled(database_, identity)) return {};
  // Whoever writes at this moment is not waited for: another opening comes.
  result = runWithoutWaiting(Sql::kBegin);
  if (result == SQLITE_OK) return settleKey(database_, path);
  return result == SQLITE_BUSY ? Outcome{} : failure(result);
}

Outcome Connection::openCopy(const std::string& path) {
  close();
  Outcome outcome = copyIntoMemory(path, database_, stamp_);
  if (outcome.ok()) isCopy_ = true;
  return outcome;
}

int Connection::configure(bool blank) {
  int result = execute(database_, kLogMode);
  // Of two that make a registry at once, one is refused without having waited: both hold what the other
  // needs.
  const auto deadline = std::chrono::steady_clock::now() + wait_;
  while (result == SQLITE_BUSY && blank && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kModePoll);
    result = execute(database_, kLogMode);
  }
  // The mode stays with the file. One that somebody copied into another mode works as well, just with more
  // waiting, until it is opened at a moment when nobody uses it.
  if (result == SQLITE_BUSY && !blank) result = SQLITE_OK;
  if (result == SQLITE_OK) result = execute(database_, kSettings);
  return result;
}

std::string Connection::keyFingerprint() {
  std::string fingerprint;
  static_cast<void>(readKeyFingerprint(database_, fingerprint));  // what cannot be read is not known
  return fingerprint;
}

void Connection::close() {
  for (auto& statement : statements_) {
    sqlite3_finalize(statement);
    statement = nullptr;
  }
  sqlite3_close(database_);
  database_ = nullptr;
  isCopy_ = false;
}

bool Connection::isReadOnly() const {
  return isCopy_ || sqlite3_db_readonly(database_, "main") == 1;
}

int Connection::run(Sql statement) {
  const int result = Query(*this, statement).step();
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

int Connection::runWithoutWaiting(Sql statement) {
  setWait(database_, std::chrono::milliseconds::zero());
  const int result = run(statement);
  setWait(database_, wait_);
  return result;
}

Outcome Connection::failure(int result) const {
  return failureOf(database_, result);
}

Query::Query(Connection& connection, Sql statement) {
  const auto index = static_cast<std::size_t>(statement);
  auto& prepared = connection.statements_[index];
  if (prepared == nullptr)
    result_ = sqlite3_prepare_v3(connection.database_, kStatements[index], -1, SQLITE_PREPARE_PERSISTENT,
                                 &prepared, nullptr);
  statement_ = prepared;
}

Query::~Query() {
  if (statement_ == nullptr) return;  // it could not be prepared, in a file without our tables, say
  sqlite3_reset(statement_);
}

Query& Query::bind(std::string_view bytes) {
  if (result_ != SQLITE_OK) return *this;
  // A null pointer would bind NULL instead of no bytes.
  const char* start = bytes.empty() ? "" : bytes.data();
  result_ = sqlite3_bind_blob64(statement_, ++bound_, start, bytes.size(), SQLITE_STATIC);
  return *this;
}

Query& Query::bind(std::int64_t number) {
  if (result_ == SQLITE_OK) result_ = sqlite3_bind_int64(statement_, ++bound_, number);
  return *this;
}

int Query::step() {
  return result_ == SQLITE_OK ? sqlite3_step(statement_) : result_;
}

std::string_view Query::bytes(int column) const {
  const void* start = sqlite3_column_blob(statement_, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return start == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(start), size);
}

}  // namespace lqregistry
