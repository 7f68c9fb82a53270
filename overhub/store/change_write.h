// Writes a change that was weighed, as rows that count from its revision on.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>

#include "overhub/store/change.h"

// Gives new clients their ids. An error when there is none left.
CWmError writeChange(soci::session& session, std::int64_t revision, ChangeSet& changes, ChangeResult& result);
