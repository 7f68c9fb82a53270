#include "overhub/store/change.h"

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/change_checks.h"
#include "overhub/store/change_plan.h"
#include "overhub/store/change_write.h"
#include "overhub/store/effects.h"
#include "overhub/store/query.h"
#include "overhub/store/revisions.h"
#include "overhub/store/schema.h"

namespace {

using soci::into;
using soci::use;

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

// Whoever else is about to change something waits here until this is done. It writes, so that what was
// committed before is on every standby once this is.
void takeTurn(soci::session& session) {
  session << "UPDATE counters SET value = value WHERE name = :name", use(kRevisionCounter);
}

std::int64_t takeRevision(soci::session& session) {
  session << "UPDATE counters SET value = value + 1 WHERE name = :name", use(kRevisionCounter);
  return newestRevision(session);
}

// The revision of a change that was made already, by an attempt whose answer was lost; 0: there is none.
std::int64_t revisionOf(soci::session& session, const std::string& operation) {
  std::int64_t revision = 0;
  session << "SELECT number FROM revisions WHERE operation = :operation", use(operation), into(revision);
  return revision;
}

// Weighs the change; an error when it may not be made. isNothing when all is so already.
CWmError weighChange(soci::session& session, const ChangeNote& note, std::int64_t revision, std::int64_t now,
                     ChangeSet& changes, ChangeResult& result) {
  const ChangePlan plan = planOf(session, revision, changes);
  result.isNothing = changes.isEmpty();
  if (result.isNothing) return {};
  CWmError error = note.expected ? checkExpected(session, *note.expected, plan, changes) : CWmError();
  if (!error.IsError()) error = checkGroups(plan.fleetAfter);
  if (error.IsError()) return error;
  result.effects = weigh(plan.names, plan.before, plan.after, plan.fleetBefore, plan.fleetAfter, now);
  noteUnheard(plan, changes, result.effects);
  noteWayBack(plan, changes, result.effects);
  return checkEffects(result.effects, note);
}

}  // namespace

bool ChangeSet::isEmpty() const {
  return settings.empty() && groups.empty() && members.empty() && newClients.empty() &&
         removedClients.empty() && withdrawals.empty();
}

std::int64_t newestRevision(soci::session& session) {
  std::int64_t revision = 0;
  session << "SELECT value FROM counters WHERE name = :name", use(kRevisionCounter), into(revision);
  return revision;
}

CWmError makeChange(const Database& database, const ChangeNote& note, const ChangeBuilder& build,
                    ChangeResult& result) {
  const std::string operation = newSessionKeyHex();  // as random as an operation has to be
  bool isLeft = false;                               // weighed, and there is nothing to write
  CWmError error = database.writeOnce([&](soci::session& session) -> CWmError {
    isLeft = false;
    takeTurn(session);
    if (const std::int64_t done = revisionOf(session, operation); done != 0) {
      result.revision = done;
      return {};
    }
    const std::int64_t revision = takeRevision(session);
    result = ChangeResult();
    ChangeSet changes;
    CWmError fault = build(session, changes);
    if (fault.IsError()) return fault;
    const std::int64_t now = database.now(session);
    fault = weighChange(session, note, revision, now, changes, result);
    if (fault.IsError()) return fault;
    isLeft = result.isNothing || note.isDryRun;
    if (isLeft) return refused("nothing is written");
    result.revision = revision;
    writeRevision(session, {revision, now, note.who, note.why, note.command, note.confirm}, operation);
    return writeChange(session, revision, changes, result);
  });
  if (isLeft) return {};
  if (error.IsError()) result = ChangeResult();
  if (error.GetCode() != kLqErrConnectionLost) return error;
  return {kLqErrConnectionLost, std::string(error.AsString()) +
                                    "; whether the change was made is not known, \"overhub log\" tells"};
}
