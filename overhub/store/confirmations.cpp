#include "overhub/store/confirmations.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "overhub/store/groups.h"
#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

void makeRow(soci::session& session, std::int64_t client) {
  session << "INSERT INTO confirmations (client, confirmed, asks, told, released) VALUES (:client, 0, 0, 0, "
             "-1) ON"
             " CONFLICT (client) DO NOTHING",
      use(client, "client");
}

bool saysSomethingNew(soci::session& session, const std::string& scope, std::int64_t revision) {
  std::int64_t count = 0;
  session
      << "SELECT COUNT(*) FROM settings WHERE scope = :scope AND (valid_from = :begun OR valid_to = :ended)",
      use(scope, "scope"), use(revision, "begun"), use(revision, "ended"), into(count);
  return count != 0;
}

// Whether a revision may have changed what the client gets.
bool touches(soci::session& session, const Client& client, std::int64_t revision) {
  const std::vector<std::string> scopes = scopesOf(session, client.id, client.name, revision);
  if (scopes != scopesOf(session, client.id, client.name, revision - 1)) return true;
  return std::any_of(scopes.begin(), scopes.end(),
                     [&](const std::string& scope) { return saysSomethingNew(session, scope, revision); });
}

std::int64_t confirmedOf(soci::session& session, const Client& client) {
  std::int64_t confirmed = 0;
  session << "SELECT confirmed FROM confirmations WHERE client = :client", use(client.id, "client"),
      into(confirmed);
  // What was demanded before it joined was demanded of others.
  return std::max(confirmed, client.validFrom);
}

// What a push in stages demands of the client itself.
Demand demandOfPush(soci::session& session, const Client& client) {
  Demand demand;
  session << "SELECT demanded, demand FROM confirmations WHERE client = :client", use(client.id, "client"),
      into(demand.revision), into(demand.seconds);
  return demand;
}

void addDemand(const Demand& demand, Demand& strictest) {
  strictest.revision = std::max(strictest.revision, demand.revision);
  const bool isStricter =
      demand.seconds >= 0 && (strictest.seconds < 0 || demand.seconds < strictest.seconds);
  if (isStricter || strictest.seconds == HostReport::kDemandNothing) strictest.seconds = demand.seconds;
}

}  // namespace

Demand demandOf(soci::session& session, const Client& client, std::int64_t upTo) {
  const std::int64_t confirmed = confirmedOf(session, client);
  const std::int64_t nothing = HostReport::kDemandNothing;
  std::vector<Demand> demands;
  Demand row;
  forEachRow(
      session,
      "SELECT number, confirm FROM revisions WHERE number > :confirmed AND number <= :last AND confirm <>"
      " :nothing ORDER BY number",
      [&] { demands.push_back(row); }, into(row.revision), into(row.seconds), use(confirmed, "confirmed"),
      use(upTo, "last"), use(nothing, "nothing"));
  Demand strictest;
  for (const Demand& demand : demands)
    if (touches(session, client, demand.revision)) addDemand(demand, strictest);
  const Demand pushed = demandOfPush(session, client);
  if (pushed.revision > confirmed && pushed.revision <= upTo) addDemand(pushed, strictest);
  return strictest;
}

Demand demandOf(soci::session& session, const Client& client) {
  return demandOf(session, client, std::numeric_limits<std::int64_t>::max());
}

DemandNote demandNoteOf(soci::session& session, std::int64_t client) {
  DemandNote note;
  std::int64_t asks = 0;
  session << "SELECT asks, told FROM confirmations WHERE client = :client", use(client, "client"), into(asks),
      into(note.told);
  note.isThere = asks != 0;
  return note;
}

void noteDemandTold(soci::session& session, std::int64_t client, std::int64_t revision) {
  const DemandNote before = demandNoteOf(session, client);
  if (before.isThere && before.told >= revision) return;
  makeRow(session, client);
  session << "UPDATE confirmations SET asks = 1, told = :told WHERE client = :client", use(revision, "told"),
      use(client, "client");
}

void confirm(soci::session& session, std::int64_t client, std::int64_t revision) {
  makeRow(session, client);
  session << "UPDATE confirmations SET confirmed = :confirmed WHERE client = :client AND confirmed < :least",
      use(revision, "confirmed"), use(client, "client"), use(revision, "least");
}

void release(soci::session& session, std::int64_t client, std::int64_t backSince) {
  makeRow(session, client);
  session
      << "UPDATE confirmations SET released = :released, back_from = 0, back_to = 0 WHERE client = :client",
      use(backSince, "released"), use(client, "client");
}

bool isTakenBack(soci::session& session, std::int64_t client, std::int64_t revision) {
  std::int64_t first = 0;
  std::int64_t last = 0;
  session << "SELECT back_from, back_to FROM confirmations WHERE client = :client", use(client, "client"),
      into(first), into(last);
  return first != 0 && revision >= first && revision <= last;
}

bool isReleased(soci::session& session, std::int64_t client, std::int64_t backSince) {
  std::int64_t released = -1;
  session << "SELECT released FROM confirmations WHERE client = :client", use(client, "client"),
      into(released);
  return released == backSince;
}

std::unordered_map<std::int64_t, std::int64_t> allConfirmed(soci::session& session) {
  std::unordered_map<std::int64_t, std::int64_t> all;
  std::int64_t client = 0;
  std::int64_t revision = 0;
  forEachRow(
      session, "SELECT client, confirmed FROM confirmations WHERE confirmed > 0",
      [&] { all[client] = revision; }, into(client), into(revision));
  return all;
}

std::string demandText(const Demand& demand) {
  return "revision " + std::to_string(demand.revision) + " has to be confirmed" +
         (demand.seconds < 0 ? "" : " within " + std::to_string(demand.seconds) + " s");
}
