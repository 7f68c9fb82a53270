#include "overhub/store/clients.h"

#include "lqregistry/LQClient.h"
#include "overhub/store/query.h"
#include "overhub/store/schema.h"

namespace {

using soci::into;
using soci::use;

template <class... Uses>
std::vector<Client> selectClients(soci::session& session, const std::string& condition, Uses&&... uses) {
  std::vector<Client> clients;
  Client row;
  forEachRow(
      session, "SELECT id, name, host, valid_from FROM clients WHERE " + condition,
      [&] { clients.push_back(row); }, into(row.id), into(row.name), into(row.host), into(row.validFrom),
      std::forward<Uses>(uses)...);
  return clients;
}

template <class... Uses>
std::vector<Contact> selectContacts(soci::session& session, const std::string& condition, Uses&&... uses) {
  std::vector<Contact> contacts;
  Contact row;
  int isUnknown = 0;
  const auto keep = [&] {
    row.isCacheUnknown = isUnknown != 0;
    contacts.push_back(row);
  };
  forEachRow(session,
             "SELECT client, address, first_seen, last_seen, handed, handed_revision, handed_time, records,"
             " most_records, proving, proven, proven_revision, base, touched, doubted, pushed_until, "
             "is_cache_unknown, outcome,"
             " outcome_time, outcome_since, refusal, refused_since FROM contacts" +
                 condition,
             keep, into(row.client), into(row.address), into(row.firstSeen), into(row.lastSeen),
             into(row.handed), into(row.handedRevision), into(row.handedTime), into(row.records),
             into(row.mostRecords), into(row.proving), into(row.proven), into(row.provenRevision),
             into(row.base), into(row.touched), into(row.doubted), into(row.pushedUntil), into(isUnknown),
             into(row.outcome), into(row.outcomeTime), into(row.outcomeSince), into(row.refusal),
             into(row.refusedSince), std::forward<Uses>(uses)...);
  return contacts;
}

}  // namespace

std::optional<Client> findClient(soci::session& session, const std::string& name) {
  const auto found =
      selectClients(session, "name = :name AND valid_to = :open", use(name, "name"), use(kOpen, "open"));
  return found.empty() ? std::nullopt : std::optional(found.front());
}

std::vector<Client> allClients(soci::session& session) {
  return selectClients(session, "valid_to = :open", use(kOpen, "open"));
}

bool isIdTaken(soci::session& session, std::int64_t id) {
  return id == static_cast<std::int64_t>(kServerClientId) ||
         !selectClients(session, "id = :id", use(id, "id")).empty();
}

void addClient(soci::session& session, const Client& client, const std::string& protectedKey) {
  session << "INSERT INTO clients (id, name, session_key, host, valid_from, valid_to) VALUES (:id, :name,"
             " :session_key, :host, :revision, :open)",
      use(client.id, "id"), use(client.name, "name"), use(protectedKey, "session_key"),
      use(client.host, "host"), use(client.validFrom, "revision"), use(kOpen, "open");
  session << "INSERT INTO contacts (client, touched) VALUES (:client, :revision)", use(client.id, "client"),
      use(client.validFrom, "revision");
}

void removeClient(soci::session& session, std::int64_t id, std::int64_t revision) {
  session << "UPDATE clients SET valid_to = :revision, session_key = '', host = '' WHERE id = :id",
      use(revision, "revision"), use(id, "id");
  for (const char* const table : {"contacts", "held", "acknowledgements", "uploads", "hand_outs", "reports",
                                  "drift_counts", "confirmations", "rollout_machines"})
    session << "DELETE FROM " << table << " WHERE client = :id", use(id, "id");
}

std::map<std::int64_t, std::int64_t> withdrawalsAt(soci::session& session, std::int64_t revision) {
  std::map<std::int64_t, std::int64_t> withdrawals;
  std::int64_t id = 0;
  std::int64_t since = 0;
  forEachRow(
      session, "SELECT client, valid_from FROM withdrawals WHERE valid_from <= :revision AND valid_to > :at",
      [&] { withdrawals[id] = since; }, into(id), into(since), use(revision, "revision"),
      use(revision, "at"));
  return withdrawals;
}

bool isWithdrawn(soci::session& session, std::int64_t id, std::int64_t revision) {
  std::int64_t found = 0;
  session << "SELECT COUNT(*) FROM withdrawals WHERE client = :client AND valid_from <= :revision AND"
             " valid_to > :at",
      use(id, "client"), use(revision, "revision"), use(revision, "at"), into(found);
  return found != 0;
}

void beginWithdrawal(soci::session& session, std::int64_t id, std::int64_t revision) {
  session << "INSERT INTO withdrawals (client, valid_from, valid_to) VALUES (:client, :revision, :open)",
      use(id, "client"), use(revision, "revision"), use(kOpen, "open");
}

void endWithdrawal(soci::session& session, std::int64_t id, std::int64_t revision) {
  session << "UPDATE withdrawals SET valid_to = :revision WHERE client = :client AND valid_to = :open",
      use(revision, "revision"), use(id, "client"), use(kOpen, "open");
}

std::string protectedKeyOf(soci::session& session, std::int64_t id) {
  std::string key;
  session << "SELECT session_key FROM clients WHERE id = :id", use(id, "id"), into(key);
  return key;
}

void setProtectedKey(soci::session& session, std::int64_t id, const std::string& protectedKey) {
  session << "UPDATE clients SET session_key = :key WHERE id = :id", use(protectedKey, "key"), use(id, "id");
}

void setHost(soci::session& session, std::int64_t id, const std::string& host) {
  session << "UPDATE clients SET host = :host WHERE id = :id", use(host, "host"), use(id, "id");
}

Contact contactOf(soci::session& session, std::int64_t id) {
  const auto found = selectContacts(session, " WHERE client = :client", use(id, "client"));
  return found.empty() ? Contact() : found.front();
}

std::vector<Contact> allContacts(soci::session& session) {
  return selectContacts(session, "");
}

void setAddress(soci::session& session, std::int64_t id, const std::string& address, std::int64_t now) {
  session << "UPDATE contacts SET address = :address, last_seen = :now WHERE client = :client",
      use(address, "address"), use(now, "now"), use(id, "client");
}

void setPushedUntil(soci::session& session, std::int64_t id, std::int64_t time) {
  session << "UPDATE contacts SET pushed_until = :time WHERE client = :client", use(time, "time"),
      use(id, "client");
}

void touchClient(soci::session& session, std::int64_t id, std::int64_t revision) {
  session << "UPDATE contacts SET touched = :revision WHERE client = :client", use(revision, "revision"),
      use(id, "client");
}

void doubtCache(soci::session& session, std::int64_t id) {
  // Nor does what was handed out before, or is on its way, prove anything of what is there now.
  session << "UPDATE contacts SET base = 0, is_cache_unknown = 1, proving = 0, proven = 0, doubted ="
             " (SELECT value FROM counters WHERE name = :counter) WHERE client = :client",
      use(kRevisionCounter, "counter"), use(id, "client");
}
