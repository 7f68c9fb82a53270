// The floor: what the least program does that leaves the same settings and the same cache on disk. It knows
// nothing of letter case, expiry, secrets, other processes or faults.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "benchmarks/wire.h"

namespace bench {

// Keys and their values in one SQLite file, as durable as the registry: write-ahead log, synchronous=FULL.
class FloorStore {
 public:
  explicit FloorStore(const std::string& file);
  ~FloorStore();
  FloorStore(const FloorStore&) = delete;
  FloorStore& operator=(const FloorStore&) = delete;

  void begin();
  void commit();
  // Makes a value exist with these contents, with one read, and one write when it differs. A key's row is
  // looked up for the first of its values.
  void apply(std::string_view key, std::string_view name, int type, std::string_view data);

  // One value by path and name, with one prepared statement each.
  bool read(std::string_view key, std::string_view name, std::string& data);
  void write(std::string_view key, std::string_view name, int type, std::string_view data);

  // All values in the order of their keys and names.
  using Visit = std::function<void(std::string_view key, std::string_view name, std::string_view data)>;
  void scan(const Visit& visit);

 private:
  sqlite3_stmt* prepare(const char* sql);
  std::int64_t keyOf(std::string_view path);

  sqlite3* database_ = nullptr;
  sqlite3_stmt* findKey_;
  sqlite3_stmt* addKey_;
  sqlite3_stmt* findValue_;
  sqlite3_stmt* addValue_;
  sqlite3_stmt* changeValue_;
  sqlite3_stmt* readByPath_;
  sqlite3_stmt* writeByPath_;
  sqlite3_stmt* scan_;
  std::string lastKey_;  // of apply
  std::int64_t lastKeyId_ = 0;
};

// The floor's client: a pass and an upload over two and one bare connections.
class FloorClient {
 public:
  FloorClient(const std::string& folder, const std::string& address, const std::string& keyHex);

  // A store without settings in the place of the one before, and no cache.
  void begin();
  FloorStore& store() { return *store_; }
  std::string cacheFile() const;

  // Request, batch, one transaction, cache, acknowledgement.
  void pass();
  // One ordered scan, one serialisation with the XML library, one exchange; how long the text was.
  std::size_t upload();

 private:
  std::string folder_;
  std::string address_;
  Endpoint endpoint_;
  std::unique_ptr<FloorStore> store_;
};

}  // namespace bench
