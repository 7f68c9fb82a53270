#include "platform/registry/sqlite_calls.h"

#include <system_error>
#include <utility>

namespace lqregistry {

namespace {

// A write that the system refuses for a quota or a limit is told apart from a full disk, which to whoever
// reads the reason it is not.
WriteFault faultOf(int result, int extended) {
  switch (result) {
    case SQLITE_BUSY:
      return WriteFault::kLocked;
    case SQLITE_READONLY:
      return WriteFault::kReadOnly;
    case SQLITE_FULL:
      return WriteFault::kFull;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return WriteFault::kDamaged;
    default:
      return extended == SQLITE_IOERR_WRITE ? WriteFault::kFull : WriteFault::kOther;
  }
}

}  // namespace

int execute(sqlite3* database, const char* sql) {
  return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

int readNumber(sqlite3* database, const char* sql, std::int64_t& number) {
  sqlite3_stmt* statement = nullptr;
  int result = sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  if (sqlite3_step(statement) == SQLITE_ROW) number = sqlite3_column_int64(statement, 0);
  return sqlite3_finalize(statement);
}

int readText(sqlite3* database, const char* sql, std::string& text) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
  if (result != SQLITE_OK) return result;
  if (sqlite3_step(statement) == SQLITE_ROW) {
    const unsigned char* const column = sqlite3_column_text(statement, 0);
    text = column == nullptr ? "" : reinterpret_cast<const char*>(column);
  }
  return sqlite3_finalize(statement);
}

void setWait(sqlite3* database, std::chrono::milliseconds wait) {
  sqlite3_busy_timeout(database, static_cast<int>(wait.count()));
}

Outcome failureOf(sqlite3* database, int result) {
  // There is no database only when there was no memory for one, which is what SQLite says of none.
  std::string reason = sqlite3_errmsg(database);
  const int systemError = sqlite3_system_errno(database);
  if ((result == SQLITE_CANTOPEN || result == SQLITE_IOERR) && systemError != 0)
    reason += ": " + std::generic_category().message(systemError);
  return {kRegUnavailable, std::move(reason), result == SQLITE_BUSY,
          faultOf(result, sqlite3_extended_errcode(database))};
}

}  // namespace lqregistry
