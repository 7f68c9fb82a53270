#include "overhub/store/hand_out.h"

#include <algorithm>
#include <cstring>  // explicit_bzero
#include <map>
#include <set>

#include "overhub/store/acknowledgements.h"
#include "overhub/store/change.h"
#include "overhub/store/clients.h"
#include "overhub/store/confirmations.h"
#include "overhub/store/groups.h"
#include "overhub/store/handed_batches.h"
#include "overhub/store/query.h"
#include "overhub/store/rollouts.h"
#include "overhub/store/scope.h"
#include "overhub/store/session_keys.h"
#include "overhub/store/settings.h"
#include "records/batch_digest.h"

namespace {

using soci::into;
using soci::use;

// What was handed out is kept so long for `overhub resend`, at most so many revisions a client.
constexpr std::int64_t kKeptSeconds = std::int64_t{90} * 86400;
constexpr std::int64_t kKeptRevisions = 100;

// A client whose cache the store cannot know gets at least this many records.
constexpr std::int64_t kUnknownCacheRecords = 2000;

CWmError unknownClient(const std::string& name) {
  return {kLqErrRequestRefused, "there is no client \"" + name + "\""};
}

// A secret that the store's key does not open cannot be handed out, nor may the batch go without it.
std::string unreadableSecret(const std::string& list, const OBGui::KeyList& keys) {
  const auto found = std::find_if(keys.begin(), keys.end(), [](const OBGui::RegistryKeyInfo& key) {
    return key.encryptedValue->isUnreadable();
  });
  if (found == keys.end()) return {};
  return "the batch of " + list + " cannot be handed out: its secret " + found->keyPath.get() + " " +
         found->valueName.get() + " was protected with another key; set it anew";
}

// Revisions whose settings may still be on the machine or in its cache, ascending.
std::vector<std::int64_t> heldRevisions(soci::session& session, const Contact& contact) {
  std::vector<std::int64_t> revisions;
  std::int64_t revision = 0;
  forEachRow(
      session,
      "SELECT revision FROM held WHERE client = :client AND last_number >= :base ORDER BY"
      " revision",
      [&] { revisions.push_back(revision); }, into(revision), use(contact.client, "client"),
      use(contact.base, "base"));
  return revisions;
}

bool wasValidAtAny(const Setting& setting, const std::vector<std::int64_t>& revisions) {
  const auto first = std::lower_bound(revisions.begin(), revisions.end(), setting.validFrom);
  return first != revisions.end() && *first < setting.validTo;
}

// What those revisions gave the machine. One query a scope, however many there are: a machine that never
// succeeds gathers them.
HeldSettings heldSettings(soci::session& session, const Contact& contact, const std::string& client,
                          const std::vector<std::string>& scopesNow) {
  const std::vector<std::int64_t> revisions = heldRevisions(session, contact);
  if (revisions.empty()) return {};
  std::map<std::string, std::vector<std::int64_t>> heard;  // which scopes at which of them
  std::set<std::int64_t> moves;                            // the machine's, from one group to another
  if (revisions.front() < contact.touched) moves = scopeChangesOf(session, contact.client, client);
  std::vector<std::string> scopes;
  for (std::size_t i = 0; i < revisions.size(); ++i) {
    const std::int64_t revision = revisions[i];
    if (revision >= contact.touched) {
      scopes = scopesNow;
    } else if (i == 0 || moves.upper_bound(revisions[i - 1]) != moves.upper_bound(revision)) {
      scopes = scopesOf(session, contact.client, client, revision);
    }
    for (const std::string& scope : scopes) heard[scope].push_back(revision);
  }
  HeldSettings held;
  for (const auto& [scope, at] : heard)
    for (const Setting& setting : settingsSince(session, scope, at.front()))
      if (wasValidAtAny(setting, at)) addHeld(setting, contact.doubted, held);
  return held;
}

void noteHeld(soci::session& session, const Contact& contact, std::int64_t revision, std::int64_t now) {
  session
      << "INSERT INTO held (client, revision, first_number, last_number, time) VALUES (:client, :revision,"
         " :first, :last, :time) ON CONFLICT (client, revision) DO UPDATE SET"
         " last_number = excluded.last_number, time = excluded.time",
      use(contact.client, "client"), use(revision, "revision"), use(contact.handed, "first"),
      use(contact.handed, "last"), use(now, "time");
  std::int64_t oldest = 0;
  session << "SELECT revision FROM held WHERE client = :client ORDER BY revision DESC LIMIT 1 OFFSET :kept",
      use(contact.client, "client"), use(kKeptRevisions, "kept"), into(oldest);
  const std::int64_t since = now - kKeptSeconds;
  session << "DELETE FROM held WHERE client = :client AND last_number < :base AND (time < :since OR"
             " revision <= :oldest)",
      use(contact.client, "client"), use(contact.base, "base"), use(since, "since"), use(oldest, "oldest");
}

// What counts at a revision. Read once: a newer one may come while this goes on, and the batch has to be that
// of the revision it is noted with.
MachineState stateAt(soci::session& session, std::int64_t clientId, const std::string& client,
                     std::int64_t revision, std::int64_t newest, std::int64_t now) {
  MachineState state;
  state.revision = revision;
  const std::vector<std::string> scopesNow = scopesOf(session, clientId, client, newest);
  const std::vector<std::string> scopesThen =
      revision == newest ? scopesNow : scopesOf(session, clientId, client, revision);
  std::vector<std::vector<Setting>> scopes;
  scopes.reserve(scopesThen.size());
  for (const std::string& scope : scopesThen) scopes.push_back(settingsOf(session, scope, revision));
  state.settings = effectiveSettings(scopes, now);
  state.held = heldSettings(session, contactOf(session, clientId), client, scopesNow);
  return state;
}

// The batch as it has to be now, into `out`, with what is refused about it.
CWmError makeBatch(soci::session& session, const Client& client, const Contact& contact, std::int64_t now,
                   HandOut& out) {
  const std::int64_t newest = newestRevision(session);
  const std::optional<Hold> hold = holdOf(session, client.id);
  const MachineState state =
      stateAt(session, client.id, client.name, hold ? std::min(hold->revision, newest) : newest, newest, now);
  out.revision = state.revision;
  out.refusal = expiryConflict(state.settings);
  const std::int64_t atLeast =
      contact.isCacheUnknown ? std::max(contact.mostRecords, kUnknownCacheRecords) : 0;
  OBGui::KeyList keys = batchOf(state.settings, state.held, static_cast<std::size_t>(atLeast));
  if (out.refusal.empty()) out.refusal = unreadableSecret(client.name, keys);
  out.batch = OBGui::RegistryTaskResp();
  out.batch.taskStatus = OBGui::kTaskSuccess;
  out.batch.client.edit().clientId = client.id;
  out.batch.keys = std::move(keys);
  return {};
}

void noteRefusal(soci::session& session, std::int64_t client, const std::string& refusal, std::int64_t now) {
  session << "UPDATE contacts SET refused_since = CASE WHEN refusal = '' THEN :now ELSE refused_since END,"
             " refusal = :refusal WHERE client = :client",
      use(now, "now"), use(refusal, "refusal"), use(client, "client");
}

// That the client came, whatever it gets. It takes the client's row: of two servers that one client asks at
// once, one waits.
void noteSeen(soci::session& session, const Client& client, std::int64_t now) {
  session << "UPDATE contacts SET last_seen = :now, first_seen = CASE WHEN first_seen = 0 THEN :first ELSE"
             " first_seen END WHERE client = :client",
      use(now, "now"), use(now, "first"), use(client.id, "client");
}

// By what the client will name the batch in its reports. Without a key that opens it has no session either.
void noteDigest(const Store& store, soci::session& session, const Client& client, std::int64_t now,
                const HandOut& out) {
  std::string key;
  if (openSessionKey(store, client.name, protectedKeyOf(session, client.id), key).IsError()) return;
  noteHandedBatch(session, client.id, out.revision, batchDigest(out.batch.keys, key), now);
  explicit_bzero(key.data(), key.size());
}

// A client that has asked must not get more than what it was told of, or it would not wait for the
// confirmation. Once: one whose host has come to be older does not ask any more.
void refuseUntold(soci::session& session, const Client& client, HandOut& out) {
  const DemandNote note = demandNoteOf(session, client.id);
  if (!note.isThere) return;
  const Demand demand = demandOf(session, client, out.revision);
  if (demand.revision <= note.told) return;
  noteDemandTold(session, client.id, demand.revision);
  out.refusal = demandText(demand) + " and came while " + client.name + " asked; its next pass brings it";
}

// Makes the next hand-out of a client that was found, and whose row is taken.
CWmError makeHandOut(const Store& store, soci::session& session, const Client& client, std::int64_t now,
                     HandOut& out) {
  Contact contact = contactOf(session, client.id);
  if (contact.client == 0) return unknownClient(client.name);  // removed while this waited for its row
  CWmError error = makeBatch(session, client, contact, now, out);
  if (error.IsError()) return error;
  if (out.refusal.empty()) refuseUntold(session, client, out);
  if (!out.refusal.empty()) {
    noteRefusal(session, client.id, out.refusal, now);
    return {};
  }
  out.number = ++contact.handed;
  const auto records = static_cast<std::int64_t>(out.batch.keys->size());
  const std::int64_t most = std::max(records, contact.mostRecords);
  session
      << "UPDATE contacts SET handed = :number, handed_revision = :revision, handed_time = :now,"
         " records = :records, most_records = :most, proving = :proving, refusal = '' WHERE client = :client",
      use(out.number, "number"), use(out.revision, "revision"), use(now, "now"), use(records, "records"),
      use(most, "most"), use(out.number, "proving"), use(client.id, "client");
  noteHeld(session, contact, out.revision, now);
  noteDigest(store, session, client, now, out);
  return {};
}

}  // namespace

CWmError machineState(soci::session& session, std::int64_t clientId, const std::string& client,
                      std::int64_t now, MachineState& state) {
  const std::int64_t newest = newestRevision(session);
  state = stateAt(session, clientId, client, newest, newest, now);
  return {};
}

CWmError handOut(const Store& store, const std::string& name, std::int64_t claimedId, HandOut& out) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    out = HandOut();
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    const std::int64_t now = database.now(session);
    noteSeen(session, *client, now);
    if (client->id != claimedId) {
      out.refusal = "unknown client id " + std::to_string(claimedId) + ": " + name + " is client " +
                    std::to_string(client->id);
      noteRefusal(session, client->id, out.refusal, now);
      return {};
    }
    return makeHandOut(store, session, *client, now, out);
  });
}

CWmError handOutForPush(const Store& store, const std::string& name, std::int64_t leaseSeconds,
                        HandOut& out) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    out = HandOut();
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    const std::int64_t now = database.now(session);
    session << "UPDATE contacts SET refusal = refusal WHERE client = :client", use(client->id);
    const Contact contact = contactOf(session, client->id);
    if (contact.client == 0) return unknownClient(name);
    if (contact.pushedUntil > now) {
      return {kLqErrRequestRefused, "another push to " + name +
                                        " is under way, or was cut off; try again in " +
                                        std::to_string(contact.pushedUntil - now) + " s at the latest"};
    }
    CWmError error = makeBatch(session, *client, contact, now, out);
    if (error.IsError() || !out.refusal.empty()) return error;
    const Demand demand = demandOf(session, *client, out.revision);
    if (demand.revision != 0 && demandNoteOf(session, client->id).isThere) {
      out.refusal =
          demandText(demand) + ", which a push cannot ask for; the next pass of " + name + " brings it";
      return {};
    }
    noteHeld(session, contact, out.revision, now);
    noteDigest(store, session, *client, now, out);
    setPushedUntil(session, client->id, now + leaseSeconds);
    return {};
  });
}

CWmError notePushed(const Store& store, const std::string& name, const HandOut& out) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    session << "UPDATE contacts SET refusal = refusal WHERE client = :client", use(client->id);
    const Contact contact = contactOf(session, client->id);
    if (contact.client == 0) return unknownClient(name);
    noteHeld(session, contact, out.revision, database.now(session));
    setPushedUntil(session, client->id, 0);
    return {};
  });
}

CWmError handOutStaticList(const Store& store, const std::string& name, HandOut& out) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    out = HandOut();
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    session << "UPDATE contacts SET proving = 0 WHERE client = :client", use(client->id);
    const std::int64_t revision = newestRevision(session);
    const EffectiveSettings list =
        effectiveSettings({settingsOf(session, kStaticScope, revision)}, database.now(session));
    out.refusal = expiryConflict(list);
    out.batch.taskStatus = OBGui::kTaskSuccess;
    out.batch.client.edit();
    out.batch.keys = batchOf(list, {}, 0);
    if (out.refusal.empty()) out.refusal = unreadableSecret(kStaticScope, out.batch.keys);
    return {};
  });
}

CWmError noteAttached(const Store& store, const std::string& name, const std::string& address,
                      std::int64_t& proving) {
  proving = 0;
  std::int64_t movedClient = 0;
  const Database& database = store.database();
  CWmError error = database.read([&](soci::session& session) -> CWmError {
    movedClient = 0;
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    const Contact contact = contactOf(session, client->id);
    proving = contact.proving;
    if (contact.address != address) movedClient = client->id;
    return {};
  });
  if (error.IsError() || movedClient == 0) return error;
  return database.write([&](soci::session& session) -> CWmError {
    setAddress(session, movedClient, address, database.now(session));
    return {};
  });
}

CWmError acknowledge(const Store& store, const std::string& name, std::int64_t number, std::int64_t namedId,
                     std::int64_t taskStatus) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    const auto client = findClient(session, name);
    if (!client) return unknownClient(name);
    const std::int64_t now = database.now(session);
    session << "UPDATE contacts SET outcome_since = CASE WHEN outcome = :same THEN outcome_since ELSE :since"
               " END, outcome = :outcome, outcome_time = :time, last_seen = :seen WHERE client = :client",
        use(taskStatus, "same"), use(now, "since"), use(taskStatus, "outcome"), use(now, "time"),
        use(now, "seen"), use(client->id, "client");
    const Contact contact = contactOf(session, client->id);
    if (contact.client == 0) return unknownClient(name);
    addAcknowledgement(session, client->id, {now, client->name, namedId, taskStatus});
    if (number == 0 || contact.proving != number) return {};
    const bool isProof = taskStatus == OBGui::kTaskSuccess;
    const bool isSecond = isProof && contact.proven == number - 1 && contact.proven != 0;
    const std::int64_t proven = isProof ? number : contact.proven;
    const std::int64_t provenRevision = isProof ? contact.handedRevision : contact.provenRevision;
    const std::int64_t base = isSecond ? number - 1 : contact.base;
    const int isUnknown = contact.isCacheUnknown && !isSecond ? 1 : 0;
    session << "UPDATE contacts SET proving = 0, proven = :proven, proven_revision = :revision, base = :base,"
               " is_cache_unknown = :unknown WHERE client = :client",
        use(proven, "proven"), use(provenRevision, "revision"), use(base, "base"), use(isUnknown, "unknown"),
        use(client->id, "client");
    return {};
  });
}
