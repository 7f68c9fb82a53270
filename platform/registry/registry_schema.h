// What makes a database a registry: its tables, the numbers of its format, and its record of the key that
// protects its values. Here they are made in a new file, and files of an older format brought up to date.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "platform/registry/outcome.h"

namespace lqregistry {

// What the header of a database says of it.
struct Identity {
  std::int64_t applicationId = 0;
  std::int64_t version = 0;
  std::int64_t tables = 0;
  bool blank() const { return applicationId == 0 && version == 0 && tables == 0; }
};

// An SQLite result code.
int identify(sqlite3* database, Identity& identity);

// Whether a database that is not blank is a registry, of a format that is known here.
Outcome checkFormat(const Identity& identity);

// Makes the tables of the registry at `path`, together with the protection key of its values.
Outcome createSchema(sqlite3* database, const std::string& path);

// Whether a registry is of the newest format and knows its key.
bool isKeySettled(sqlite3* database, const Identity& identity);

// Ends a transaction that writes, in which it brings a file of an older format up to date and records the key
// of one that does not know it yet.
Outcome settleKey(sqlite3* database, const std::string& path);

// The fingerprint of the protection key that belongs to the registry; what is read into stays as it is when
// it is not known. An SQLite result code; a file of format 1 has none to read.
int readKeyFingerprint(sqlite3* database, std::string& fingerprint);

// A new registry would get a new key, and the values that the one beside `path` protects would be lost with
// it.
Outcome orphanedKey(const std::string& path);

}  // namespace lqregistry
