// Puts back what a revision changed.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/change.h"

// What an undo does not put back, in words; empty when there is nothing.
using LeftOut = std::string;

// What puts back what a revision changed. Refused, with the later revision named, when something of it was
// changed after. Clients that it added or removed stay as they are, and what was set for those it removed has
// nobody to be set for.
CWmError buildUndo(soci::session& session, std::int64_t revision, ChangeSet& changes, LeftOut& leftOut);
