// How things stand with the machines: one state each.
//
// What is looked at first counts, in the order in which somebody has to act: a machine that does not come
// gets nothing, whatever else there is to say of it; one that has gone back does not hold what it should, and
// takes it no more; one that fails lacks a part; one whose modules refuse it, or have to be restarted for it,
// has it and does not work with it; one that only waits for its next pass needs nobody; and where somebody
// keeps changing values, they are right again. So, of all that are true:
//
// clang-format off
//   never      nothing was ever heard of it since it was added
//   silent     it was not seen for longer than a time that the caller names; what its last words were, and
//              what waits for it, is told with it
//   back       by its report it has gone back to what it held before
//   failed     its last hand-out was refused, its newest acknowledgement says that the batch was not applied,
//              its report names a problem, or two machines answer by its name
//   refused    by its report a module refused a value, or did not say that it works with it
//   restart    by its report a module has to be restarted first
//   pending    a newer revision touches it than the one that is in effect: by its report, when it makes any,
//              which names the batch that it was handed last; otherwise the newest that it has acknowledged as
//              applied. Or what it holds is not known, because somebody else may have joined in its name or
//              asked for all of it again; or everything is withdrawn from it, and two passes in a row have not
//              taken it back yet; or a push in stages holds it back
//   corrected  a value was changed on it, and corrected, within a day
//   current    none of these
// clang-format on
//
// A report counts until the machine acknowledges so much later that its host cannot make any more.
//
// A revision touches a machine if it changed what one of its scopes says, or which groups it is in. Whether
// the machine's own values become others by it is not looked at: a nearer scope may hide what was changed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "overhub/store/clients.h"
#include "overhub/store/drifts.h"
#include "overhub/store/handed_batches.h"
#include "overhub/store/reports.h"
#include "overhub/store/rollouts.h"

enum class FleetState { current, corrected, pending, restart, refused, failed, back, silent, never };
inline constexpr std::array kFleetStates{FleetState::current, FleetState::corrected, FleetState::pending,
                                         FleetState::restart, FleetState::refused,   FleetState::failed,
                                         FleetState::back,    FleetState::silent,    FleetState::never};

// How long a machine counts as corrected after the last correction.
inline constexpr std::int64_t kCorrectedSeconds = 86400;

// "current"; never changes, since programs read it.
const char* stateName(FleetState state);

struct MachineStatus {
  Client client;
  Contact contact;
  std::vector<std::string> groups;  // the farthest first
  FleetState state = FleetState::never;
  std::int64_t newest = 0;       // the newest revision that touches it
  std::int64_t withdrawnAt = 0;  // the revision from which on everything is withdrawn from it; 0: it stays
  bool isClean = false;          // such a machine has given everything back
  std::int64_t since = 0;        // when the state began, in seconds since the epoch; 0: not known
  std::string why;               // for people; empty when it is current, and stays
  std::optional<ReportNote> report;   // its newest
  std::optional<HandedBatch> handed;  // what it was handed last
  std::optional<Hold> hold;           // a push in stages keeps newer revisions from it
  RecentDrift drift;                  // within kCorrectedSeconds

  // Whether a push in stages keeps something from it that is there for it.
  bool isHeldBack() const { return hold && hold->revision < newest; }
  // Whether it has gone on without reports since that one: its host makes none any more.
  bool isReportOutdated(std::int64_t silentSeconds) const;
};

struct FleetStatus {
  std::int64_t now = 0;  // by the store's clock
  std::int64_t revision = 0;
  std::int64_t oldestPending = 0;  // when the oldest change was made that a pending machine lacks; 0: none
  std::vector<MachineStatus> machines;  // in the order of the clients that were asked for

  std::size_t count(FleetState state) const;
  // From how many everything is withdrawn, and how many of those have given it back.
  std::size_t countWithdrawn() const;
  std::size_t countClean() const;
  // Whether all hold what they should, and work with it.
  bool isAllInEffect() const {
    return count(FleetState::current) + count(FleetState::corrected) == machines.size();
  }
};

// Within a unit of work (database.h). The number of queries does not depend on the number of clients.
FleetStatus fleetStatus(soci::session& session, std::vector<Client> clients, std::int64_t now,
                        std::int64_t silentSeconds);
