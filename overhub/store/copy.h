// Copies of a store that lies in a file, and what a store does that was such a copy.
//
// A copy knows that it is one. Its first opening begins a new epoch: numbers that the store gave after it was
// copied, and that it cannot know, are not given again, and no client's cache is taken for known. All of that
// is one transaction, so a restored store never works as if nothing had happened.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/store.h"

// The key of a copy lies beside it.
inline std::string keyOfCopy(const std::string& file) {
  return file + ".key";
}

// Copies a store of SQLite's, which others may use meanwhile, with its key. Both are files of mode 0600 that
// appear as a whole; none that is there is replaced.
CWmError copyStore(const Store& store, const std::string& file);

// Notes in the database that it is a copy of this time.
void markAsCopy(soci::session& session, const std::string& time);

// Begins a new epoch when the database is a copy; what a person should know of it, or nothing.
CWmError beginEpoch(const Database& database, std::string& notice);
