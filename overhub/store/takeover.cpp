#include "overhub/store/takeover.h"

#include <soci/soci.h>

#include <cstring>  // explicit_bzero

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/change.h"
#include "overhub/store/groups.h"
#include "overhub/store/revisions.h"
#include "overhub/store/schema.h"
#include "overhub/store/scope.h"
#include "overhub/store/session_keys.h"
#include "overhub/store/settings.h"
#include "overhub/store/uploads.h"

namespace {

using soci::into;
using soci::use;

// How many more records than its batch a client's cache may hold, from batches that were longer.
constexpr std::int64_t kMoreRecords = 2'000;

// A client as the store is to have it, protected with the store's key.
struct Ready {
  const FormerClient* former = nullptr;
  std::string protectedKey;
  std::vector<Setting> settings;
  Upload upload;
  std::string uploadText;
};

CWmError makeReady(const Store& store, const FormerClient& former, Ready& ready) {
  ready.former = &former;
  std::string hex(former.sessionKey.reveal());
  CWmError error = protectSessionKey(store, hex, ready.protectedKey);
  explicit_bzero(hex.data(), hex.size());
  if (!error.IsError()) error = settingsOf(former.records, ready.settings);
  if (error.IsError() || !former.upload) return error;
  ready.upload.client = former.client.name;
  ready.upload.time = former.uploadTime;
  return describeUpload(store, *former.upload, ready.upload, ready.uploadText);
}

void writeSettings(soci::session& session, const std::string& scope, std::vector<Setting> settings,
                   std::int64_t revision) {
  if (settings.empty()) return;
  for (Setting& setting : settings) {
    setting.scope = scope;
    beginSetting(session, setting, revision);
  }
  session << "INSERT INTO scopes (scope, touched, said) VALUES (:scope, :revision, :said)",
      use(scope, "scope"), use(revision, "revision"), use(revision, "said");
}

void writeClient(soci::session& session, const Ready& ready, std::int64_t revision, std::int64_t now) {
  const FormerClient& former = *ready.former;
  Client client = former.client;
  client.validFrom = revision;
  addClient(session, client, ready.protectedKey);
  writeSettings(session, machineScope(client.id), ready.settings, revision);
  for (const Acknowledgement& acknowledgement : former.acknowledgements)
    addAcknowledgement(session, client.id, acknowledgement);
  if (former.upload) keepUpload(session, client.id, ready.upload, ready.uploadText);

  const auto& said = former.acknowledgements;
  const std::int64_t first = said.empty() ? 0 : said.front().time;
  const std::int64_t last = said.empty() ? 0 : said.back().time;
  const std::int64_t outcome = said.empty() ? 0 : said.back().taskStatus;
  std::int64_t since = last;  // the first of those at the end that say the same
  for (auto entry = said.rbegin(); entry != said.rend() && entry->taskStatus == outcome; ++entry)
    since = entry->time;
  const std::int64_t most = static_cast<std::int64_t>(former.records.size()) + kMoreRecords;
  session << "UPDATE contacts SET address = :address, first_seen = :first, last_seen = :last,"
             " outcome = :outcome, outcome_time = :time, outcome_since = :since, most_records = :most WHERE "
             "client = :client",
      use(former.address, "address"), use(first, "first"), use(last, "last"), use(outcome, "outcome"),
      use(last, "time"), use(since, "since"), use(most, "most"), use(client.id, "client");
  doubtCache(session, client.id);
  // It was handed all of this by the server before, so what is withdrawn before its next pass is removed.
  session
      << "INSERT INTO held (client, revision, first_number, last_number, time) VALUES (:client, :revision,"
         " 0, 0, :time)",
      use(client.id, "client"), use(revision, "revision"), use(now, "time");
}

// A store that anything was ever done with has a revision.
bool isEmpty(soci::session& session) {
  std::int64_t revisions = 0;
  session << "SELECT COUNT(*) FROM revisions", into(revisions);
  return revisions == 0;
}

}  // namespace

CWmError takeOver(const Store& store, const FormerStore& former, const TakeoverNote& note) {
  std::vector<Ready> clients(former.clients.size());
  for (std::size_t i = 0; i < clients.size(); ++i) {
    CWmError error = makeReady(store, former.clients[i], clients[i]);
    if (error.IsError()) return error;
  }
  std::vector<Setting> staticList;
  CWmError error = settingsOf(former.staticList, staticList);
  if (error.IsError()) return error;
  const std::string operation = newSessionKeyHex();
  const Database& database = store.database();
  return database.writeOnce([&](soci::session& session) -> CWmError {
    session << "UPDATE counters SET value = value + 1 WHERE name = :name", use(kRevisionCounter);
    std::int64_t done = 0;  // by an attempt whose answer was lost
    session << "SELECT number FROM revisions WHERE operation = :operation", use(operation), into(done);
    if (done != 0) return {};
    if (!isEmpty(session))
      return {kLqErrRequestRefused, store.place() + " holds something already; name a new store"};
    const std::int64_t revision = newestRevision(session);
    const std::int64_t now = database.now(session);
    writeRevision(session, {revision, now, note.who, "", note.command, HostReport::kDemandNothing},
                  operation);
    writeSettings(session, kStaticScope, staticList, revision);
    for (const Ready& client : clients) writeClient(session, client, revision, now);
    session << "UPDATE counters SET value = :value WHERE name = :name", use(former.highestId),
        use(kClientIdCounter);
    return {};
  });
}
