// What a change starts from and what it would make of it: of the values that it may touch, and of who is in
// which group. Nothing is written.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "overhub/store/effects.h"

struct ChangePlan {
  std::set<std::string> names;  // of the values that the change may touch
  TouchedSettings before;
  TouchedSettings after;
  Fleet fleetBefore;
  Fleet fleetAfter;
};

// Makes the plan of a change, completes the change by what goes with a group or a machine that ends, and
// leaves out of it what is so already. `revision` is the one that it would get.
ChangePlan planOf(soci::session& session, std::int64_t revision, ChangeSet& changes);

// What a scope says of this identity, or null.
const Setting* findSaid(const TouchedSettings& settings, const std::string& scope, const Identity& identity);

// The groups that a change is about themselves, or by who is in them.
std::set<std::string> touchedGroups(const ChangeSet& changes);
