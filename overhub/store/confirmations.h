// Which changes a machine has to prove, and how far it has: `--confirm`.
//
// A change that was made with it has to be confirmed on each machine that it touches: by a report that shows
// the batch to be in effect, or by a person. Until then each hand-out demands it of the machine, which goes
// back to what was before when it is not confirmed in time, or a module refuses it. The machine hears of the
// demand in the answer to the report before its pass; what it fetches afterwards must not demand more.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "overhub/store/clients.h"
#include "overhub/store/database.h"
#include "records/host_report.h"

struct Demand {
  std::int64_t seconds = HostReport::kDemandNothing;  // or kDemandVerdicts; as HostReport::Answer says it
  std::int64_t revision = 0;                          // the newest that demands something; 0: none does
};

// What the changes up to a revision demand of a client and are not confirmed on it: of several times the
// shortest, and any time rather than none.
Demand demandOf(soci::session& session, const Client& client, std::int64_t upTo);
// The same for all that there are.
Demand demandOf(soci::session& session, const Client& client);

// What a client has been told of demands.
struct DemandNote {
  bool isThere = false;   // it has asked for its demands
  std::int64_t told = 0;  // the newest revision whose demand it has heard of
};
DemandNote demandNoteOf(soci::session& session, std::int64_t client);
void noteDemandTold(soci::session& session, std::int64_t client, std::int64_t revision);

// That everything up to a revision is confirmed on a client; an older one changes nothing.
void confirm(soci::session& session, std::int64_t client, std::int64_t revision);

// That a client may apply again what it went back from at a time, which its reports name.
void release(soci::session& session, std::int64_t client, std::int64_t backSince);
bool isReleased(soci::session& session, std::int64_t client, std::int64_t backSince);

// Whether a client is to go back from the batch of this revision: the stage of a push that brought it failed.
// Until it is released, or its stage begins again (rollouts.h).
bool isTakenBack(soci::session& session, std::int64_t client, std::int64_t revision);

// The newest revision that is confirmed on each client on which one is, by its id.
std::unordered_map<std::int64_t, std::int64_t> allConfirmed(soci::session& session);

// "revision 12 has to be confirmed within 5 minutes", of a demand that there is.
std::string demandText(const Demand& demand);
