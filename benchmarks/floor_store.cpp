#include "benchmarks/floor.h"
#include "benchmarks/rounds.h"

namespace bench {

namespace {

constexpr const char* kPrepareFile =
    "PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = FULL;"
    "CREATE TABLE IF NOT EXISTS k (id INTEGER PRIMARY KEY, path BLOB NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS v (k INTEGER NOT NULL, name BLOB NOT NULL, type INTEGER NOT NULL,"
    "  data BLOB NOT NULL, PRIMARY KEY (k, name)) WITHOUT ROWID;";

void bind(sqlite3_stmt* statement, int place, std::string_view bytes) {
  sqlite3_bind_blob64(statement, place, bytes.data(), bytes.size(), SQLITE_STATIC);
}

std::string_view column(sqlite3_stmt* statement, int number) {
  const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement, number));
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, number))};
}

void run(sqlite3_stmt* statement) {
  demand(sqlite3_step(statement) == SQLITE_DONE, "the floor's store cannot be written");
  sqlite3_reset(statement);
}

}  // namespace

FloorStore::FloorStore(const std::string& file) {
  demand(
      sqlite3_open_v2(file.c_str(), &database_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK,
      "cannot open " + file);
  demand(sqlite3_exec(database_, kPrepareFile, nullptr, nullptr, nullptr) == SQLITE_OK,
         "cannot prepare " + file);
  findKey_ = prepare("SELECT id FROM k WHERE path = ?1");
  addKey_ = prepare("INSERT INTO k (path) VALUES (?1)");
  findValue_ = prepare("SELECT type, data FROM v WHERE k = ?1 AND name = ?2");
  addValue_ = prepare("INSERT INTO v VALUES (?1, ?2, ?3, ?4)");
  changeValue_ = prepare("UPDATE v SET type = ?3, data = ?4 WHERE k = ?1 AND name = ?2");
  readByPath_ = prepare("SELECT v.data FROM k JOIN v ON v.k = k.id AND v.name = ?2 WHERE k.path = ?1");
  writeByPath_ = prepare(
      "INSERT INTO v VALUES ((SELECT id FROM k WHERE path = ?1), ?2, ?3, ?4)"
      " ON CONFLICT DO UPDATE SET type = ?3, data = ?4");
  scan_ = prepare("SELECT k.path, v.name, v.data FROM k JOIN v ON v.k = k.id ORDER BY k.path, v.name");
}

FloorStore::~FloorStore() {
  for (sqlite3_stmt* const statement :
       {findKey_, addKey_, findValue_, addValue_, changeValue_, readByPath_, writeByPath_, scan_})
    sqlite3_finalize(statement);
  sqlite3_close(database_);
}

sqlite3_stmt* FloorStore::prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  demand(sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK,
         sqlite3_errmsg(database_));
  return statement;
}

void FloorStore::begin() {
  lastKey_.clear();
  demand(sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK,
         "no transaction");
}

void FloorStore::commit() {
  demand(sqlite3_exec(database_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK, "not committed");
}

std::int64_t FloorStore::keyOf(std::string_view path) {
  if (path == lastKey_) return lastKeyId_;
  bind(findKey_, 1, path);
  if (sqlite3_step(findKey_) == SQLITE_ROW) {
    lastKeyId_ = sqlite3_column_int64(findKey_, 0);
  } else {
    bind(addKey_, 1, path);
    run(addKey_);
    lastKeyId_ = sqlite3_last_insert_rowid(database_);
  }
  sqlite3_reset(findKey_);
  lastKey_ = path;
  return lastKeyId_;
}

void FloorStore::apply(std::string_view key, std::string_view name, int type, std::string_view data) {
  const std::int64_t id = keyOf(key);
  sqlite3_bind_int64(findValue_, 1, id);
  bind(findValue_, 2, name);
  const bool exists = sqlite3_step(findValue_) == SQLITE_ROW;
  const bool isSame = exists && sqlite3_column_int(findValue_, 0) == type && column(findValue_, 1) == data;
  sqlite3_reset(findValue_);
  if (isSame) return;
  sqlite3_stmt* const write = exists ? changeValue_ : addValue_;
  sqlite3_bind_int64(write, 1, id);
  bind(write, 2, name);
  sqlite3_bind_int(write, 3, type);
  bind(write, 4, data);
  run(write);
}

bool FloorStore::read(std::string_view key, std::string_view name, std::string& data) {
  bind(readByPath_, 1, key);
  bind(readByPath_, 2, name);
  const bool exists = sqlite3_step(readByPath_) == SQLITE_ROW;
  if (exists) data = column(readByPath_, 0);
  sqlite3_reset(readByPath_);
  return exists;
}

void FloorStore::write(std::string_view key, std::string_view name, int type, std::string_view data) {
  bind(writeByPath_, 1, key);
  bind(writeByPath_, 2, name);
  sqlite3_bind_int(writeByPath_, 3, type);
  bind(writeByPath_, 4, data);
  run(writeByPath_);
}

void FloorStore::scan(const Visit& visit) {
  while (sqlite3_step(scan_) == SQLITE_ROW) visit(column(scan_, 0), column(scan_, 1), column(scan_, 2));
  sqlite3_reset(scan_);
}

}  // namespace bench
