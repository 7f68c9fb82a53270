#include "overhub/store/schema.h"

#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "lqregistry/LQClient.h"
#include "lqregistry/pstring.h"
#include "overhub/store/engine.h"
#include "overhub/store/query.h"

namespace {

const std::string kVersionCounter = "schema";

// The newest version's. TEXT, BIGINT and INTEGER mean the same on all engines, and nothing is ever NULL.
constexpr const char* kTables[] = {
    "CREATE TABLE counters (name TEXT NOT NULL PRIMARY KEY, value BIGINT NOT NULL)",
    // What the store says of itself: who it is, and by which key its secrets are protected.
    "CREATE TABLE facts (name TEXT NOT NULL PRIMARY KEY, value TEXT NOT NULL)",
    "CREATE TABLE revisions (number BIGINT NOT NULL PRIMARY KEY, time BIGINT NOT NULL, who TEXT NOT NULL,"
    " why TEXT NOT NULL, command TEXT NOT NULL, operation TEXT NOT NULL UNIQUE)",

    "CREATE TABLE settings (scope TEXT NOT NULL, place TEXT NOT NULL, name TEXT NOT NULL,"
    " is_key INTEGER NOT NULL, valid_from BIGINT NOT NULL, valid_to BIGINT NOT NULL, path TEXT NOT NULL,"
    " type TEXT NOT NULL, value TEXT NOT NULL, secret TEXT NOT NULL, is_removal INTEGER NOT NULL,"
    " is_disabled INTEGER NOT NULL, expires BIGINT NOT NULL,"
    " PRIMARY KEY (scope, place, name, is_key, valid_from))",
    "CREATE UNIQUE INDEX settings_by_scope ON settings (scope, valid_to, place, name, is_key)",
    "CREATE INDEX settings_by_name ON settings (name, valid_to)",
    "CREATE INDEX settings_by_start ON settings (valid_from)",
    "CREATE INDEX settings_by_end ON settings (valid_to)",
    // The newest revision that changed something in a scope, and the newest that changed what it says: who
    // joins a group is no news to those that are in it.
    "CREATE TABLE scopes (scope TEXT NOT NULL PRIMARY KEY, touched BIGINT NOT NULL, said BIGINT NOT NULL)",

    "CREATE TABLE machine_groups (name TEXT NOT NULL, number BIGINT NOT NULL, valid_from BIGINT NOT NULL,"
    " valid_to BIGINT NOT NULL, PRIMARY KEY (name, valid_from))",
    "CREATE UNIQUE INDEX machine_groups_by_name ON machine_groups (name, valid_to)",
    "CREATE UNIQUE INDEX machine_groups_by_number ON machine_groups (number, valid_to)",
    "CREATE TABLE members (machine_group TEXT NOT NULL, pattern TEXT NOT NULL, is_live INTEGER NOT NULL,"
    " valid_from BIGINT NOT NULL, valid_to BIGINT NOT NULL, PRIMARY KEY (machine_group, pattern, "
    "valid_from))",
    "CREATE UNIQUE INDEX members_by_group ON members (machine_group, pattern, valid_to)",
    "CREATE INDEX members_by_pattern ON members (pattern, valid_to)",
    "CREATE INDEX members_by_kind ON members (is_live, valid_to)",

    "CREATE TABLE clients (id BIGINT NOT NULL PRIMARY KEY, name TEXT NOT NULL, session_key TEXT NOT NULL,"
    " host TEXT NOT NULL, valid_from BIGINT NOT NULL, valid_to BIGINT NOT NULL)",
    "CREATE UNIQUE INDEX clients_by_name ON clients (name, valid_to)",
    "CREATE TABLE withdrawals (client BIGINT NOT NULL, valid_from BIGINT NOT NULL, valid_to BIGINT NOT NULL,"
    " PRIMARY KEY (client, valid_from))",
    // What changes with every pass of a client stands apart from what people change. hand_out.h explains it.
    "CREATE TABLE contacts (client BIGINT NOT NULL PRIMARY KEY, address TEXT NOT NULL DEFAULT '',"
    " first_seen BIGINT NOT NULL DEFAULT 0, last_seen BIGINT NOT NULL DEFAULT 0, handed BIGINT NOT NULL "
    "DEFAULT 0,"
    " handed_revision BIGINT NOT NULL DEFAULT 0, handed_time BIGINT NOT NULL DEFAULT 0, records BIGINT NOT "
    "NULL DEFAULT 0,"
    " most_records BIGINT NOT NULL DEFAULT 0, proving BIGINT NOT NULL DEFAULT 0, proven BIGINT NOT NULL "
    "DEFAULT 0,"
    " proven_revision BIGINT NOT NULL DEFAULT 0, base BIGINT NOT NULL DEFAULT 0, touched BIGINT NOT NULL "
    "DEFAULT 0, doubted BIGINT NOT NULL DEFAULT 0, pushed_until BIGINT NOT NULL DEFAULT 0,"
    " is_cache_unknown INTEGER NOT NULL DEFAULT 0, outcome BIGINT NOT NULL DEFAULT 0, outcome_time BIGINT "
    "NOT NULL DEFAULT 0,"
    " outcome_since BIGINT NOT NULL DEFAULT 0, refusal TEXT NOT NULL DEFAULT '', refused_since BIGINT NOT "
    "NULL DEFAULT 0)",
    "CREATE TABLE held (client BIGINT NOT NULL, revision BIGINT NOT NULL, first_number BIGINT NOT NULL,"
    " last_number BIGINT NOT NULL, time BIGINT NOT NULL, PRIMARY KEY (client, revision))",

    "CREATE TABLE acknowledgements (client BIGINT NOT NULL, number BIGINT NOT NULL, time BIGINT NOT NULL,"
    " named_id BIGINT NOT NULL, status BIGINT NOT NULL, PRIMARY KEY (client, number))",
    "CREATE TABLE uploads (client BIGINT NOT NULL, number BIGINT NOT NULL, time BIGINT NOT NULL,"
    " key_count BIGINT NOT NULL, value_count BIGINT NOT NULL, bytes BIGINT NOT NULL, text TEXT NOT NULL,"
    " PRIMARY KEY (client, number))",
};

// What clients say of themselves, and by which digests they name what they were handed.
constexpr const char* kReportTables[] = {
    "CREATE TABLE hand_outs (client BIGINT NOT NULL, number BIGINT NOT NULL, revision BIGINT NOT NULL,"
    " digest TEXT NOT NULL, time BIGINT NOT NULL, PRIMARY KEY (client, number))",
    "CREATE TABLE reports (client BIGINT NOT NULL PRIMARY KEY, epoch TEXT NOT NULL, sequence BIGINT NOT NULL,"
    " former_epoch TEXT NOT NULL, changed BIGINT NOT NULL, turned BIGINT NOT NULL, time BIGINT NOT NULL,"
    " received BIGINT NOT NULL, digest TEXT NOT NULL, told TEXT NOT NULL, why TEXT NOT NULL, since BIGINT NOT"
    " NULL, back_since BIGINT NOT NULL, text TEXT NOT NULL)",
    "CREATE TABLE drift_counts (client BIGINT NOT NULL, path TEXT NOT NULL, name TEXT NOT NULL, times BIGINT"
    " NOT NULL, first_time BIGINT NOT NULL, last_time BIGINT NOT NULL, found TEXT NOT NULL, corrected TEXT"
    " NOT NULL, is_secret INTEGER NOT NULL, PRIMARY KEY (client, path, name))",
    "CREATE INDEX drift_counts_by_time ON drift_counts (last_time)",
};

// What changes demand, and what of it was confirmed on which machine.
constexpr const char* kConfirmationTables[] = {
    "ALTER TABLE revisions ADD COLUMN confirm BIGINT NOT NULL DEFAULT -2",
    "CREATE TABLE confirmations (client BIGINT NOT NULL PRIMARY KEY, confirmed BIGINT NOT NULL, asks INTEGER "
    "NOT"
    " NULL, told BIGINT NOT NULL, released BIGINT NOT NULL)",
};

// What a push in stages demands of machines, or takes back from them, beside what the changes do; and the
// pushes in stages themselves, with what became of each machine. No machine is held where it is 0.
constexpr const char* kRolloutTables[] = {
    "ALTER TABLE confirmations ADD COLUMN demanded BIGINT NOT NULL DEFAULT 0",
    "ALTER TABLE confirmations ADD COLUMN demand BIGINT NOT NULL DEFAULT -2",
    "ALTER TABLE confirmations ADD COLUMN back_from BIGINT NOT NULL DEFAULT 0",
    "ALTER TABLE confirmations ADD COLUMN back_to BIGINT NOT NULL DEFAULT 0",
    "CREATE TABLE rollouts (number BIGINT NOT NULL PRIMARY KEY, time BIGINT NOT NULL, who TEXT NOT NULL,"
    " target TEXT NOT NULL, revision BIGINT NOT NULL, stage BIGINT NOT NULL, stages BIGINT NOT NULL,"
    " stop_at BIGINT NOT NULL, wait BIGINT NOT NULL, demand BIGINT NOT NULL, state TEXT NOT NULL,"
    " runner TEXT NOT NULL, leased_until BIGINT NOT NULL)",
    "CREATE TABLE rollout_machines (rollout BIGINT NOT NULL, client BIGINT NOT NULL, position BIGINT NOT "
    "NULL,"
    " stage BIGINT NOT NULL, state TEXT NOT NULL, why TEXT NOT NULL, held BIGINT NOT NULL, handed BIGINT NOT"
    " NULL, reported TEXT NOT NULL, PRIMARY KEY (rollout, client))",
    "CREATE INDEX rollout_machines_by_client ON rollout_machines (client, held)",
};

// Uploads stood as they came, and they hold session keys. One after the other, as there may be more of them
// than memory.
CWmError sealUploads(soci::session& session) {
  std::vector<std::pair<std::int64_t, std::int64_t>> uploads;
  std::int64_t client = 0;
  std::int64_t number = 0;
  forEachRow(
      session, "SELECT client, number FROM uploads", [&] { uploads.emplace_back(client, number); },
      soci::into(client), soci::into(number));
  for (const auto& [of, at] : uploads) {
    std::string text;
    session << "SELECT text FROM uploads WHERE client = :client AND number = :number", soci::use(of),
        soci::use(at), soci::into(text);
    const std::string sealed = pstring(text).getV8Password();
    if (sealed.empty()) return {kLqErrFile, "an upload cannot be protected with the store's key"};
    session << "UPDATE uploads SET text = :text WHERE client = :client AND number = :number",
        soci::use(sealed), soci::use(of), soci::use(at);
  }
  return {};
}

CWmError addReports(soci::session& session) {
  for (const char* const table : kReportTables) session << table;
  return {};
}

CWmError addConfirmations(soci::session& session) {
  for (const char* const table : kConfirmationTables) session << table;
  return {};
}

CWmError addRollouts(soci::session& session) {
  for (const char* const table : kRolloutTables) session << table;
  return {};
}

// Each makes a store of one version one of the next, the first of them one of version 1. What was released
// stays as it is.
using Step = CWmError (*)(soci::session& session);
constexpr Step kSteps[] = {sealUploads, addReports, addConfirmations, addRollouts};

constexpr std::int64_t kVersion = std::size(kSteps) + 1;

CWmError foreignTables() {
  return {kLqErrFile, "there are tables in it that are not overhub's; name an empty database"};
}

}  // namespace

CWmError schema::look(soci::session& session, const Engine& engine, std::int64_t& version) {
  std::int64_t counters = 0;
  std::int64_t tables = 0;
  version = 0;
  session << engine.tables(), soci::into(counters), soci::into(tables);
  if (counters == 0) return tables == 0 ? CWmError() : foreignTables();
  session << "SELECT value FROM counters WHERE name = :name", soci::use(kVersionCounter), soci::into(version);
  if (version == 0) return foreignTables();
  if (version <= kVersion) return {};
  return {kLqErrFile, "the store is of version " + std::to_string(version) + ", and this overhub knows " +
                          std::to_string(kVersion) + "; use the overhub that wrote it, or a newer one"};
}

CWmError schema::prepare(soci::session& session, const Engine& engine) {
  std::int64_t version = 0;
  CWmError error = look(session, engine, version);
  if (error.IsError() || version != 0) return error;
  for (const char* const table : kTables) session << table;
  for (const Step step : {addReports, addConfirmations, addRollouts})
    if (error = step(session); error.IsError()) return error;
  const std::pair<std::string, std::int64_t> counters[] = {
      {kVersionCounter, kVersion},
      {kRevisionCounter, 0},
      {kClientIdCounter, static_cast<std::int64_t>(kServerClientId)}};
  for (const auto& [name, value] : counters)
    session << "INSERT INTO counters (name, value) VALUES (:name, :value)", soci::use(name), soci::use(value);
  return {};
}

bool schema::isOld(std::int64_t version) {
  return version < kVersion;
}

CWmError schema::upgrade(soci::session& session, const Engine& engine, std::int64_t& version) {
  // Whoever else has the same in mind waits at this row.
  session << "UPDATE counters SET value = value WHERE name = :name", soci::use(kVersionCounter);
  CWmError error = look(session, engine, version);
  for (; !error.IsError() && isOld(version); ++version)
    error = kSteps[static_cast<std::size_t>(version - 1)](session);
  if (!error.IsError())
    session << "UPDATE counters SET value = :version WHERE name = :name", soci::use(version),
        soci::use(kVersionCounter);
  return error;
}
