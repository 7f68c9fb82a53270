// What a change may not do: overtake somebody, make groups that contradict each other, cut machines off, or
// make a batch that cannot be handed out.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include "lqregistry/CWmError.h"
#include "overhub/store/change_plan.h"

// Nobody may have changed since `expected` what this changes; otherwise an error that says who changed what.
CWmError checkExpected(soci::session& session, std::int64_t expected, const ChangePlan& plan,
                       const ChangeSet& changes);

CWmError checkGroups(const Fleet& fleet);

// Adds to the effects what it edits without a machine that hears it: in the static list, for a group without
// machines, or where nearer scopes say something else.
void noteUnheard(const ChangePlan& plan, const ChangeSet& changes, Effects& effects);

// Notes in the effects which of what it edits machines need to come back, also where none gets it now: one
// may tomorrow.
void noteWayBack(const ChangePlan& plan, const ChangeSet& changes, Effects& effects);

CWmError checkEffects(const Effects& effects, const ChangeNote& note);
