// Plain calls of SQLite, for what is done once or seldom. What is done for every value goes through the
// prepared statements of a Connection (registry_connection.h).
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/registry/outcome.h"

namespace lqregistry {

// Each gives an SQLite result code.
int execute(sqlite3* database, const char* sql);
// The first column of the first row; what is read into stays as it is when there is none.
int readNumber(sqlite3* database, const char* sql, std::int64_t& number);
int readText(sqlite3* database, const char* sql, std::string& text);

// How long statements wait for other processes from now on.
void setWait(sqlite3* database, std::chrono::milliseconds wait);

// The outcome for a result code that the last call on `database` gave; null: it could not even be made.
Outcome failureOf(sqlite3* database, int result);

}  // namespace lqregistry
