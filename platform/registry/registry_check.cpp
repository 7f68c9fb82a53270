// Whether a registry file is sound.
#include "platform/registry/registry_connection.h"
#include "platform/registry/sqlite_calls.h"

namespace lqregistry {

namespace {

// A key's path is its parent's and its name; a value belongs to a key.
constexpr const char* kIntegrityCheck = "PRAGMA integrity_check(1)";
constexpr const char* kOrphanCheck = "PRAGMA foreign_key_check";
constexpr const char* kPathCheck =
    "SELECT k.id FROM keys k LEFT JOIN keys p ON p.id = k.parent WHERE k.path IS NOT "
    "CAST(CASE k.parent WHEN 0 THEN k.name ELSE p.path || '/' || k.name END AS BLOB) LIMIT 1";
constexpr const char* kSound = "ok";

Outcome damaged(const std::string& what) {
  return {kRegUnavailable, "it is damaged: " + what};
}

}  // namespace

Outcome Connection::check() {
  std::string found;
  int result = readText(database_, kIntegrityCheck, found);
  if (result == SQLITE_OK && found != kSound) return damaged(found);
  found.clear();
  if (result == SQLITE_OK) result = readText(database_, kOrphanCheck, found);
  if (result == SQLITE_OK && !found.empty()) return damaged("it holds values without a key");
  if (result == SQLITE_OK) result = readText(database_, kPathCheck, found);
  if (result == SQLITE_OK && !found.empty())
    return damaged("key " + found + " has another path than its parent and name say");
  return result == SQLITE_OK ? Outcome{} : failure(result);
}

}  // namespace lqregistry
