// Opening a registry file and talking SQL to it.
//
// Keys and values are rows. A key's row holds its full path, which makes a look-up one indexed query and a
// subtree one index range, and its parent, which makes the children one index range as well. Names and data
// are blobs: compared byte by byte, any byte allowed.
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
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr std::int64_t kApplicationId = 0x4C515247;  // "LQRG", at a fixed place in the file's header
constexpr std::int64_t kSchemaVersion = 2;
constexpr std::int64_t kVersionWithoutFacts = 1;
constexpr mode_t kFileMode = 0600;  // SQLite gives its companion files the mode of the main one
constexpr mode_t kPermissionBits = 0777;
constexpr const char* kLogSuffix = "-wal";
constexpr const char* kIndexSuffix = "-shm";

constexpr std::chrono::milliseconds kModePoll{5};  // between two tries to set it
constexpr const char* kLogMode = "PRAGMA journal_mode = WAL";
constexpr const char* kSettings =
    "PRAGMA synchronous = FULL;"
    "PRAGMA foreign_keys = ON;";

// The number is that of kApplicationId; that of kSchemaVersion comes with kFactsSchema.
constexpr const char* kSchema =
    "CREATE TABLE keys ("
    "  id INTEGER PRIMARY KEY,"
    "  path BLOB NOT NULL UNIQUE,"
    "  parent INTEGER NOT NULL,"
    "  name BLOB NOT NULL);"
    "CREATE UNIQUE INDEX keys_by_parent ON keys (parent, name);"
    "CREATE TABLE key_values ("
    "  key_id INTEGER NOT NULL REFERENCES keys (id) ON DELETE CASCADE,"
    "  name BLOB NOT NULL,"
    "  type INTEGER NOT NULL,"
    "  data BLOB NOT NULL,"
    "  PRIMARY KEY (key_id, name)) WITHOUT ROWID;"
    "PRAGMA application_id = 0x4C515247;";

// Format 2 adds what the file knows of itself.
constexpr const char* kFactsSchema =
    "CREATE TABLE facts ("
    "  name TEXT PRIMARY KEY,"
    "  value TEXT NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version = 2;";

constexpr const char* kKeyFact = "protection key";
constexpr const char* kReadFact = "SELECT value FROM facts WHERE name = ?1";
constexpr const char* kAddFact = "INSERT INTO facts (name, value) VALUES (?1, ?2)";
constexpr const char* kCountProtected =
    "SELECT count(*) FROM key_values WHERE substr(data, 1, 3) = CAST('V8:' AS BLOB)";

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

// A new registry would get a new key, and the values that this one protects would be lost with it.
Outcome orphanedKey(const std::string& path) {
  return unavailable(
      "there is no registry in it, but a protection key that belongs to one: " + keyFileOf(path) +
      "; put the registry back from a backup, or move the key away to begin a new one");
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
  setWait(wait);

  Identity identity;
  result = identify(identity);
  if (needsCopy(result, path)) {
    Outcome outcome = openCopy(path);
    if (!outcome.ok()) return outcome;
    result = identify(identity);
  }
  if (result != SQLITE_OK) return failure(result);
  if (identity.blank()) {
    if (access == Access::kReading) return {kRegKeyMissing, "nothing was written to the registry file yet"};
  } else if (identity.applicationId != kApplicationId) {
    return unavailable("it is a database of another application");
  } else if (identity.version < kVersionWithoutFacts || identity.version > kSchemaVersion) {
    return unavailable("it has format " + std::to_string(identity.version) + ", this program knows formats " +
                       std::to_string(kVersionWithoutFacts) + " to " + std::to_string(kSchemaVersion));
  }

  if (isReadOnly()) return {};
  result = configure(identity.blank());
  if (result != SQLITE_OK) return failure(result);
  return identity.blank() ? createSchema() : settleKey(identity.version, wait);
}

Outcome Connection::openCopy(const std::string& path) {
  close();
  Outcome outcome = copyIntoMemory(path, database_, stamp_);
  if (outcome.ok()) isCopy_ = true;
  return outcome;
}

int Connection::firstRow(const char* sql, std::string& text) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  if (sqlite3_step(statement) == SQLITE_ROW) {
    const unsigned char* const column = sqlite3_column_text(statement, 0);
    text = column == nullptr ? "" : reinterpret_cast<const char*>(column);
  }
  return sqlite3_finalize(statement);
}

int Connection::identify(Identity& identity) {
  // One snapshot: another process may be creating the registry between two of these reads.
  int result = execute("SAVEPOINT identify");
  if (result == SQLITE_OK) result = readNumber("PRAGMA application_id", identity.applicationId);
  if (result == SQLITE_OK) result = readNumber("PRAGMA user_version", identity.version);
  if (result == SQLITE_OK) result = readNumber("SELECT count(*) FROM sqlite_schema", identity.tables);
  if (result == SQLITE_OK) result = execute("RELEASE identify");
  return result;
}

int Connection::configure(bool blank) {
  int result = execute(kLogMode);
  // Of two that make a registry at once, one is refused without having waited: both hold what the other
  // needs.
  const auto deadline = std::chrono::steady_clock::now() + wait_;
  while (result == SQLITE_BUSY && blank && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kModePoll);
    result = execute(kLogMode);
  }
  // The mode stays with the file. One that somebody copied into another mode works as well, just with more
  // waiting, until it is opened at a moment when nobody uses it.
  if (result == SQLITE_BUSY && !blank) result = SQLITE_OK;
  if (result == SQLITE_OK) result = execute(kSettings);
  return result;
}

Outcome Connection::createSchema() {
  int result = execute("BEGIN IMMEDIATE");
  if (result != SQLITE_OK) return failure(result);
  // Another process may have been first.
  Identity identity;
  result = identify(identity);
  if (result == SQLITE_OK && !identity.blank()) result = execute("COMMIT");
  if (result != SQLITE_OK || !identity.blank()) return ended(result);
  if (lqsecret::keyFileExists(keyFileOf(path_))) {
    execute("ROLLBACK");
    return orphanedKey(path_);
  }
  result = execute(kSchema);
  if (result == SQLITE_OK) result = execute(kFactsSchema);
  return result == SQLITE_OK ? commitWithNewKey() : ended(result);
}

Outcome Connection::settleKey(std::int64_t version, std::chrono::milliseconds wait) {
  std::string fingerprint;
  if (version == kSchemaVersion && readKeyFingerprint(fingerprint) == SQLITE_OK && !fingerprint.empty())
    return {};
  // Whoever writes at this moment is not waited for: another opening comes.
  setWait(std::chrono::milliseconds::zero());
  int result = execute("BEGIN IMMEDIATE");
  setWait(wait);
  if (result != SQLITE_OK) return result == SQLITE_BUSY ? Outcome{} : failure(result);
  Identity identity;
  result = identify(identity);
  if (result == SQLITE_OK && identity.version < kSchemaVersion) result = execute(kFactsSchema);
  if (result == SQLITE_OK) result = readKeyFingerprint(fingerprint);
  std::int64_t isProtecting = 0;
  if (result == SQLITE_OK) result = readNumber(kCountProtected, isProtecting);
  if (result != SQLITE_OK) return ended(result);
  const std::string keyFile = keyFileOf(path_);
  const bool hasKey = lqsecret::keyFileExists(keyFile);
  if (fingerprint.empty() && !hasKey && isProtecting == 0) return commitWithNewKey();
  // A key that cannot be used now is adopted by a later opening, when somebody has seen to it.
  if (fingerprint.empty() && hasKey && !lqsecret::fingerprintOf(keyFile, fingerprint).IsError())
    result = addKeyFingerprint(fingerprint);
  return ended(result == SQLITE_OK ? execute("COMMIT") : result);
}

Outcome Connection::commitWithNewKey() {
  const std::string keyFile = keyFileOf(path_);
  std::string fingerprint;
  const CWmError error = lqsecret::stageKey(keyFile, fingerprint);
  if (error.IsError()) {
    execute("ROLLBACK");
    return unavailable(error.AsString());
  }
  int result = addKeyFingerprint(fingerprint);
  if (result == SQLITE_OK) result = execute("COMMIT");
  // A key that stays behind is found and put in place by who needs it first.
  if (result == SQLITE_OK) static_cast<void>(lqsecret::placeKey(keyFile));
  return ended(result);
}

Outcome Connection::ended(int result) {
  if (result == SQLITE_OK) return {};
  Outcome outcome = failure(result);
  if (inTransaction()) execute("ROLLBACK");
  return outcome;
}

int Connection::readKeyFingerprint(std::string& fingerprint) {
  fingerprint.clear();
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database_, kReadFact, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  result = sqlite3_bind_text(statement, 1, kKeyFact, -1, SQLITE_STATIC);
  if (result == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW)
    fingerprint = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
  return sqlite3_finalize(statement);
}

int Connection::addKeyFingerprint(const std::string& fingerprint) {
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database_, kAddFact, -1, &statement, nullptr);
  if (result == SQLITE_OK) result = sqlite3_bind_text(statement, 1, kKeyFact, -1, SQLITE_STATIC);
  if (result == SQLITE_OK) result = sqlite3_bind_text(statement, 2, fingerprint.c_str(), -1, SQLITE_STATIC);
  if (result == SQLITE_OK) sqlite3_step(statement);
  const int ending = sqlite3_finalize(statement);
  return result == SQLITE_OK ? ending : result;
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

void Connection::setWait(std::chrono::milliseconds wait) {
  sqlite3_busy_timeout(database_, static_cast<int>(wait.count()));
}

int Connection::run(Sql statement) {
  const int result = Query(*this, statement).step();
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

int Connection::runWithoutWaiting(Sql statement) {
  setWait(std::chrono::milliseconds::zero());
  const int result = run(statement);
  setWait(wait_);
  return result;
}

int Connection::execute(const char* sql) {
  return sqlite3_exec(database_, sql, nullptr, nullptr, nullptr);
}

int Connection::readNumber(const char* sql, std::int64_t& number) {
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  if (sqlite3_step(statement) == SQLITE_ROW) number = sqlite3_column_int64(statement, 0);
  return sqlite3_finalize(statement);
}

Outcome Connection::failure(int result) const {
  std::string reason = database_ != nullptr ? sqlite3_errmsg(database_) : sqlite3_errstr(result);
  const int systemError = database_ != nullptr ? sqlite3_system_errno(database_) : 0;
  if ((result == SQLITE_CANTOPEN || result == SQLITE_IOERR) && systemError != 0)
    reason += ": " + systemText(systemError);
  return {kRegUnavailable, std::move(reason), result == SQLITE_BUSY};
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
  sqlite3_clear_bindings(statement_);
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
