// One SQLite connection to a registry file: opening it safely, and the prepared statements on it.
//
// Opening checks that the file is a registry before anything is written to it, and creates it only when the
// caller means to write, together with the protection key of its values. A connection has no lock of its own;
// its owner lets one thread in at a time.
#pragma once

#include <sqlite3.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/registry/outcome.h"
#include "platform/registry/registry_copy.h"

namespace lqregistry {

enum class Access { kReading, kWriting };

enum class Sql {
  kBegin,
  kBeginReading,
  kCommit,
  kRollback,
  kFindKey,
  kAddKey,
  kRemoveSubtree,
  kSubKeys,
  kFindValue,
  kAddValue,
  kUpdateValue,
  kRemoveValue,
  kScanKey,
  kCount
};

class Connection {
 public:
  Connection() = default;
  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Opens the registry at `path`, waiting up to `wait` for other processes now and in later statements.
  // Reading a file that does not exist, or to which nothing was written yet, is kRegKeyMissing; writing
  // creates the registry in it. A file that may only be read is opened for that, whatever was asked for;
  // where not even the log's index can be made beside it, a private copy is read (see registry_copy.h).
  Outcome open(const std::string& path, Access access, std::chrono::milliseconds wait);
  void close();

  bool isOpen() const { return database_ != nullptr; }
  bool isReadOnly() const;
  // False when this reads a copy of a file that has changed since.
  bool isCurrent() const { return !isCopy_ || stamp_ == stampOf(path_); }
  bool inTransaction() const { return isOpen() && sqlite3_get_autocommit(database_) == 0; }

  // Reads the whole file and compares its trees with each other and keys with their paths. The contents of a
  // value carry no checksum: a byte that changed within them is not noticed.
  Outcome check();

  // Runs a statement without parameters or results; an SQLite result code.
  int run(Sql statement);
  // The same, without waiting for other processes.
  int runWithoutWaiting(Sql statement);
  std::int64_t lastKeyId() const { return sqlite3_last_insert_rowid(database_); }

  // The fingerprint of the protection key that belongs to this registry; empty when it is not known, as in a
  // file of format 1.
  std::string keyFingerprint();

  // The outcome for an SQLite result code that the last call on this connection gave.
  Outcome failure(int result) const;

 private:
  friend class Query;

  Outcome openChecked(const std::string& path, Access access, std::chrono::milliseconds wait);
  Outcome openCopy(const std::string& path);
  int configure(bool blank);

  sqlite3* database_ = nullptr;
  std::string path_;
  std::chrono::milliseconds wait_{0};
  bool isCopy_ = false;
  FileStamp stamp_;  // of the file when it was copied
  std::array<sqlite3_stmt*, static_cast<std::size_t>(Sql::kCount)> statements_{};
};

// One use of a prepared statement: bind, step, read columns. Bound bytes must outlive it; the statement is
// free for the next use when it ends.
class Query {
 public:
  Query(Connection& connection, Sql statement);
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& bind(std::string_view bytes);
  Query& bind(std::int64_t number);

  // SQLITE_ROW, SQLITE_DONE or an error.
  int step();

  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  // Valid until the next step.
  std::string_view bytes(int column) const;

 private:
  sqlite3_stmt* statement_ = nullptr;
  int result_ = SQLITE_OK;  // the first error of preparing or binding
  int bound_ = 0;
};

}  // namespace lqregistry
