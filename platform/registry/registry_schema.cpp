// Keys and values are rows. A key's row holds its full path, which makes a look-up one indexed query and a
// subtree one index range, and its parent, which makes the children one index range as well. Names and data
// are blobs: compared byte by byte, any byte allowed.
#include "platform/registry/registry_schema.h"

#include "platform/registry/registry_key.h"
#include "platform/registry/sqlite_calls.h"
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr std::int64_t kApplicationId = 0x4C515247;  // "LQRG", at a fixed place in the file's header
constexpr std::int64_t kSchemaVersion = 2;
constexpr std::int64_t kVersionWithoutFacts = 1;

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

// The outcome of a transaction that came to `result`. One that failed is undone by who opens the file, and
// closes it then.
Outcome ended(sqlite3* database, int result) {
  return result == SQLITE_OK ? Outcome{} : failureOf(database, result);
}

int addKeyFingerprint(sqlite3* database, const std::string& fingerprint) {
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database, kAddFact, -1, &statement, nullptr);
  if (result == SQLITE_OK) result = sqlite3_bind_text(statement, 1, kKeyFact, -1, SQLITE_STATIC);
  if (result == SQLITE_OK) result = sqlite3_bind_text(statement, 2, fingerprint.c_str(), -1, SQLITE_STATIC);
  if (result == SQLITE_OK) sqlite3_step(statement);
  const int ending = sqlite3_finalize(statement);
  return result == SQLITE_OK ? ending : result;
}

Outcome commitWithNewKey(sqlite3* database, const std::string& path) {
  const std::string keyFile = keyFileOf(path);
  std::string fingerprint;
  const CWmError error = lqsecret::stageKey(keyFile, fingerprint);
  if (error.IsError()) return {kRegUnavailable, error.AsString()};
  int result = addKeyFingerprint(database, fingerprint);
  if (result == SQLITE_OK) result = execute(database, "COMMIT");
  // A key that stays behind is found and put in place by who needs it first.
  if (result == SQLITE_OK) static_cast<void>(lqsecret::placeKey(keyFile));
  return ended(database, result);
}

}  // namespace

int identify(sqlite3* database, Identity& identity) {
  // One snapshot: another process may be creating the registry between two of these reads.
  int result = execute(database, "SAVEPOINT identify");
  if (result == SQLITE_OK) result = readNumber(database, "PRAGMA application_id", identity.applicationId);
  if (result == SQLITE_OK) result = readNumber(database, "PRAGMA user_version", identity.version);
  if (result == SQLITE_OK)
    result = readNumber(database, "SELECT count(*) FROM sqlite_schema", identity.tables);
  if (result == SQLITE_OK) result = execute(database, "RELEASE identify");
  return result;
}

Outcome checkFormat(const Identity& identity) {
  if (identity.applicationId != kApplicationId)
    return {kRegUnavailable, "it is a database of another application"};
  if (identity.version < kVersionWithoutFacts || identity.version > kSchemaVersion) {
    return {kRegUnavailable, "it has format " + std::to_string(identity.version) +
                                 ", this program knows formats " + std::to_string(kVersionWithoutFacts) +
                                 " to " + std::to_string(kSchemaVersion)};
  }
  return {};
}

Outcome createSchema(sqlite3* database, const std::string& path) {
  int result = execute(database, "BEGIN IMMEDIATE");
  if (result != SQLITE_OK) return failureOf(database, result);
  // Another process may have been first.
  Identity identity;
  result = identify(database, identity);
  if (result == SQLITE_OK && !identity.blank()) result = execute(database, "COMMIT");
  if (result != SQLITE_OK || !identity.blank()) return ended(database, result);
  if (lqsecret::keyFileExists(keyFileOf(path))) return orphanedKey(path);
  result = execute(database, kSchema);
  if (result == SQLITE_OK) result = execute(database, kFactsSchema);
  return result == SQLITE_OK ? commitWithNewKey(database, path) : ended(database, result);
}

bool isKeySettled(sqlite3* database, const Identity& identity) {
  std::string fingerprint;
  return identity.version == kSchemaVersion && readKeyFingerprint(database, fingerprint) == SQLITE_OK &&
         !fingerprint.empty();
}

Outcome settleKey(sqlite3* database, const std::string& path) {
  std::string fingerprint;
  Identity identity;
  int result = identify(database, identity);
  if (result == SQLITE_OK && identity.version < kSchemaVersion) result = execute(database, kFactsSchema);
  if (result == SQLITE_OK) result = readKeyFingerprint(database, fingerprint);
  std::int64_t isProtecting = 0;
  if (result == SQLITE_OK) result = readNumber(database, kCountProtected, isProtecting);
  if (result != SQLITE_OK) return ended(database, result);
  const std::string keyFile = keyFileOf(path);
  const bool hasKey = lqsecret::keyFileExists(keyFile);
  if (fingerprint.empty() && !hasKey && isProtecting == 0) return commitWithNewKey(database, path);
  // A key that cannot be used now is adopted by a later opening, when somebody has seen to it.
  if (fingerprint.empty() && hasKey && !lqsecret::fingerprintOf(keyFile, fingerprint).IsError())
    result = addKeyFingerprint(database, fingerprint);
  return ended(database, result == SQLITE_OK ? execute(database, "COMMIT") : result);
}

int readKeyFingerprint(sqlite3* database, std::string& fingerprint) {
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database, kReadFact, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  result = sqlite3_bind_text(statement, 1, kKeyFact, -1, SQLITE_STATIC);
  if (result == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW)
    fingerprint = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
  return sqlite3_finalize(statement);
}

Outcome orphanedKey(const std::string& path) {
  return {kRegUnavailable,
          "there is no registry in it, but a protection key that belongs to one: " + keyFileOf(path) +
              "; put the registry back from a backup, or move the key away to begin a new one"};
}

}  // namespace lqregistry
