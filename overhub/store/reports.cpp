#include "overhub/store/reports.h"

#include "overhub/store/clients.h"
#include "overhub/store/confirmations.h"
#include "overhub/store/drifts.h"
#include "overhub/store/handed_batches.h"
#include "overhub/store/origins.h"
#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

// Who was set back once is one machine, and so is one that is set back every night.
constexpr std::int64_t kTurnSeconds = std::int64_t{12} * 3600;
// How long two machines of one name are a reason to do something.
constexpr std::int64_t kTurnedSeconds = 86400;

template <class... Uses>
std::vector<ReportNote> select(soci::session& session, const std::string& condition, Uses&&... uses) {
  std::vector<ReportNote> notes;
  ReportNote row;
  std::string told;
  const auto keep = [&] {
    row.summary.told = toldOf(told);
    notes.push_back(row);
  };
  forEachRow(
      session,
      "SELECT client, epoch, sequence, former_epoch, changed, turned, time, received, digest, told, why,"
      " since, back_since FROM reports" +
          condition,
      keep, into(row.client), into(row.epoch), into(row.sequence), into(row.formerEpoch), into(row.changed),
      into(row.turned), into(row.time), into(row.received), into(row.digest), into(told),
      into(row.summary.why), into(row.summary.since), into(row.backSince), std::forward<Uses>(uses)...);
  return notes;
}

std::optional<ReportNote> noteOf(soci::session& session, std::int64_t client) {
  const auto found = select(session, " WHERE client = :client", use(client, "client"));
  return found.empty() ? std::nullopt : std::optional(found.front());
}

bool hasLostCount(const ReportNote& before, const HostReport::Report& report) {
  return before.epoch != report.epoch.get() ||
         (report.sequence < before.sequence && report.time > before.time);
}

// The note of a report that takes the place of the one before.
ReportNote noteFor(const std::optional<ReportNote>& before, const HostReport::Report& report,
                   std::int64_t now) {
  ReportNote note;
  if (before) {
    note = *before;
    if (hasLostCount(*before, report)) {
      // Two processes of one host may mix up their numbers, but not their epochs.
      const bool isReturn = report.epoch.get() != before->epoch && report.epoch.get() == before->formerEpoch;
      if (isReturn && now - before->changed < kTurnSeconds) note.turned = now;
      note.formerEpoch = before->epoch;
      note.changed = now;
    }
  }
  note.epoch = report.epoch;
  note.sequence = report.sequence;
  note.time = report.time;
  note.received = now;
  note.digest = report.digest;
  note.summary = summaryOf(report, now);
  return note;
}

void write(soci::session& session, const ReportNote& note, const std::string& text) {
  session << "DELETE FROM reports WHERE client = :client", use(note.client, "client");
  const std::string told = toldWord(note.summary.told);
  session << "INSERT INTO reports (client, epoch, sequence, former_epoch, changed, turned, time, received,"
             " digest, told, why, since, back_since, text) VALUES (:client, :epoch, :sequence, :former,"
             " :changed, :turned, :time, :received, :digest, :told, :why, :since, :back_since, :text)",
      use(note.client, "client"), use(note.epoch, "epoch"), use(note.sequence, "sequence"),
      use(note.formerEpoch, "former"), use(note.changed, "changed"), use(note.turned, "turned"),
      use(note.time, "time"), use(note.received, "received"), use(note.digest, "digest"), use(told, "told"),
      use(note.summary.why, "why"), use(note.summary.since, "since"), use(note.backSince, "back_since"),
      use(text, "text");
}

// A machine that went back holds again what the server has withdrawn since.
void noteGoneBack(soci::session& session, const HostReport::Report& report, ReportNote& note) {
  if (report.memory->state.get() != "goneBack" || note.backSince == report.memory->since) return;
  note.backSince = report.memory->since;
  doubtCache(session, note.client);
}

// False when there is a newer one.
bool keep(soci::session& session, std::int64_t client, const HostReport::Report& report,
          const std::string& text, std::int64_t now) {
  const auto before = noteOf(session, client);
  if (before && !hasLostCount(*before, report) && report.sequence <= before->sequence) return false;
  ReportNote note = noteFor(before, report, now);
  note.client = client;
  noteGoneBack(session, report, note);
  countDrifts(session, client, report, now);
  write(session, note, text);
  return true;
}

// Confirms the batch where the report shows that it is in effect, and tells of a pass that is about to begin
// what it has to ask for.
HostReport::Answer answerTo(soci::session& session, const Client& client, const HostReport::Report& report,
                            bool isNewest, std::int64_t now) {
  HostReport::Answer answer;
  answer.version = HostReport::kVersion;
  answer.sequence = report.sequence.get();
  const auto batch = findHandedBatch(session, client.id, report.digest);
  if (batch) {
    answer.revision = batch->revision;
    if (isNewest && !isTakenBack(session, client.id, batch->revision) &&
        provesBatch(report, batch->time, now))
      confirm(session, client.id, batch->revision);
    answer.isConfirmed = demandOf(session, client, batch->revision).revision == 0 ? 1 : 0;
  }
  const Demand demand = demandOf(session, client);
  answer.demand = demand.seconds;
  const HostReport::Memory& memory = report.memory;
  if (report.cause.get() == HostReport::kCauseAsk) {
    noteDemandTold(session, client.id, demand.revision);
    answer.goBack = shallGoBack(session, client.id, memory) ? 1 : 0;
  }
  answer.isReleased =
      memory.state.get() == "goneBack" && isReleased(session, client.id, memory.since) ? 1 : 0;
  return answer;
}

}  // namespace

CWmError acceptReport(const Store& store, const std::string& name, const HostReport::Report& said,
                      HostReport::Answer& answer) {
  HostReport::Report report = said;
  hideSecrets(report);
  std::string text;
  CWmError error = checkReport(report, text);
  if (error.IsError()) return error;
  const Database& database = store.database();
  Client client;
  std::int64_t now = 0;
  error = database.write([&](soci::session& session) -> CWmError {
    const auto found = findClient(session, name);
    if (!found) return {kLqErrRequestRefused, "there is no client \"" + name + "\""};
    client = *found;
    if (report.clientId != client.id) {
      return {kLqErrRequestRefused, "the report is not taken: unknown client id " +
                                        std::to_string(report.clientId) + ": " + name + " is client " +
                                        std::to_string(client.id)};
    }
    now = database.now(session);
    // Takes the client's row: of two servers that it reports to at once, one waits.
    session << "UPDATE contacts SET last_seen = :now WHERE client = :client", use(now, "now"),
        use(client.id, "client");
    if (contactOf(session, client.id).client == 0)
      return {kLqErrRequestRefused, "there is no client \"" + name + "\""};
    const bool isNewest = keep(session, client.id, report, text, now);
    answer = answerTo(session, client, report, isNewest, now);
    return {};
  });
  if (error.IsError() || answer.revision == 0 || report.originsOf.get() == report.digest.get()) return error;
  return database.read([&](soci::session& session) -> CWmError {
    answer.origins.clear();
    answer.revisions.clear();
    addOrigins(session, client, answer.revision, now, answer);
    return {};
  });
}

bool shallGoBack(soci::session& session, std::int64_t client, const HostReport::Memory& memory) {
  if (memory.state.get() != "kept" && memory.state.get() != "waiting") return false;
  const auto batch = findHandedBatch(session, client, memory.digest);
  return batch && isTakenBack(session, client, batch->revision);
}

bool ReportNote::areTwo(std::int64_t now) const {
  return turned != 0 && now - turned < kTurnedSeconds;
}

std::vector<ReportNote> allReportNotes(soci::session& session) {
  return select(session, "");
}

std::optional<StoredReport> reportOf(soci::session& session, std::int64_t client) {
  auto note = noteOf(session, client);
  if (!note) return std::nullopt;
  std::string text;
  session << "SELECT text FROM reports WHERE client = :client", use(client, "client"), into(text);
  StoredReport stored;
  stored.note = *std::move(note);
  if (stored.report.unserialize(text) != 0) return std::nullopt;
  return stored;
}
