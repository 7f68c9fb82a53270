#include "overhub/store/fleet_state.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include "common/age_text.h"
#include "lqregistry/OBGui.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/change.h"
#include "overhub/store/groups.h"
#include "overhub/store/query.h"
#include "overhub/store/schema.h"
#include "overhub/store/scope.h"
#include "overhub/store/scope_finder.h"

namespace {

using soci::into;
using soci::use;

using Numbers = std::unordered_map<std::string, std::int64_t>;
using Lists = std::unordered_map<std::string, std::vector<std::int64_t>>;

// The newest revision that changed what a scope says.
Numbers newestSaid(soci::session& session) {
  Numbers said;
  std::string scope;
  std::int64_t revision = 0;
  forEachRow(
      session, "SELECT scope, said FROM scopes", [&] { said[scope] = revision; }, into(scope),
      into(revision));
  return said;
}

// All revisions after that one that changed what a scope says, ascending.
Lists saidAfter(soci::session& session, std::int64_t revision) {
  Lists said;
  std::string scope;
  std::int64_t number = 0;
  const auto add = [&] { said[scope].push_back(number); };
  forEachRow(session, "SELECT DISTINCT scope, valid_from FROM settings WHERE valid_from > :revision", add,
             into(scope), into(number), use(revision, "revision"));
  forEachRow(session,
             "SELECT DISTINCT scope, valid_to FROM settings WHERE valid_to > :revision AND valid_to < :open",
             add, into(scope), into(number), use(revision, "revision"), use(kOpen, "open"));
  for (auto& [name, list] : said) std::sort(list.begin(), list.end());
  return said;
}

// When revisions were made, of those from one number on.
std::unordered_map<std::int64_t, std::int64_t> timesFrom(soci::session& session, std::int64_t revision) {
  std::unordered_map<std::int64_t, std::int64_t> times;
  std::int64_t number = 0;
  std::int64_t time = 0;
  forEachRow(
      session, "SELECT number, time FROM revisions WHERE number >= :revision", [&] { times[number] = time; },
      into(number), into(time), use(revision, "revision"));
  return times;
}

// Of the machines from which everything is withdrawn, those that have given it back: all that may be left on
// them was handed out since.
std::set<std::int64_t> cleanMachines(soci::session& session,
                                     const std::map<std::int64_t, std::int64_t>& withdrawn) {
  std::set<std::int64_t> clean;
  if (withdrawn.empty()) return clean;
  for (const auto& [id, since] : withdrawn) clean.insert(id);
  std::int64_t id = 0;
  std::int64_t oldest = 0;
  forEachRow(
      session,
      "SELECT h.client, MIN(h.revision) FROM held h JOIN contacts c ON c.client = h.client WHERE"
      " h.last_number >= c.base AND h.client IN (SELECT client FROM withdrawals WHERE valid_to = :open)"
      " GROUP BY h.client",
      [&] {
        if (const auto since = withdrawn.find(id); since != withdrawn.end() && oldest < since->second)
          clean.erase(id);
      },
      into(id), into(oldest), use(kOpen, "open"));
  return clean;
}

// All scopes of a machine, from what is known of it.
template <class Each>
void forEachScope(const MachineStatus& machine, const Each& each) {
  if (machine.withdrawnAt != 0) return;
  each(std::string(kAllScope));
  for (const std::string& group : machine.groups) each(groupScope(group));
  each(machineScope(machine.client.id));
}

bool isFailure(const Contact& contact) {
  return contact.outcome != 0 && contact.outcome != OBGui::kTaskSuccess;
}

// What its report says, as long as that counts.
const ReportNote* toldBy(const MachineStatus& machine, std::int64_t silentSeconds) {
  return machine.report && !machine.isReportOutdated(silentSeconds) ? &*machine.report : nullptr;
}

// Whether it was handed the newest batch that there is for it, and its report names that one.
bool isReported(const MachineStatus& machine, const ReportNote& report) {
  return machine.handed->digest == report.digest && machine.handed->revision >= machine.newest;
}

bool lacksSomething(const MachineStatus& machine, const ReportNote* report) {
  if (machine.contact.isCacheUnknown || (machine.withdrawnAt != 0 && !machine.isClean)) return true;
  if (report != nullptr && machine.handed) return !isReported(machine, *report);
  return machine.contact.provenRevision < machine.newest;
}

FleetState stateOf(const MachineStatus& machine, std::int64_t now, std::int64_t silentSeconds) {
  const Contact& contact = machine.contact;
  if (contact.lastSeen == 0) return FleetState::never;
  if (now - contact.lastSeen > silentSeconds) return FleetState::silent;
  const ReportNote* const report = toldBy(machine, silentSeconds);
  const Told told = report != nullptr ? report->summary.told : Told::good;
  if (told == Told::back) return FleetState::back;
  if (!contact.refusal.empty() || isFailure(contact) || told == Told::failed) return FleetState::failed;
  if (report != nullptr && report->areTwo(now)) return FleetState::failed;
  if (told == Told::refused) return FleetState::refused;
  if (told == Told::restart) return FleetState::restart;
  if (lacksSomething(machine, report)) return FleetState::pending;
  return machine.drift.values != 0 ? FleetState::corrected : FleetState::current;
}

std::string failureText(const MachineStatus& machine, std::int64_t now, std::int64_t silentSeconds) {
  const Contact& contact = machine.contact;
  const ReportNote* const report = toldBy(machine, silentSeconds);
  if (!contact.refusal.empty()) return "refused: " + contact.refusal;
  if (report != nullptr && report->summary.told == Told::failed) return report->summary.why;
  if (report != nullptr && report->areTwo(now)) return "two machines answer as " + machine.client.name;
  return "its newest acknowledgement says: " + outcomeText(contact.outcome);
}

std::string waitingText(const MachineStatus& machine, std::int64_t silentSeconds) {
  const Contact& contact = machine.contact;
  if (machine.withdrawnAt != 0) {
    const bool isBegun = contact.proven != 0 && contact.provenRevision >= machine.withdrawnAt;
    return std::string("everything is withdrawn from it, which takes ") +
           (isBegun ? "one more applied pass" : "two applied passes");
  }
  const ReportNote* const report = toldBy(machine, silentSeconds);
  const std::string revision = "revision " + std::to_string(machine.newest);
  if (machine.isHeldBack()) {
    return revision + " is held back by push " + std::to_string(machine.hold->rollout) +
           " in stages, which has not come to it or was stopped";
  }
  if (machine.contact.handedRevision < machine.newest) return revision + " waits for its next pass";
  if (contact.provenRevision < machine.newest)
    return revision + " was handed to it and is not acknowledged as applied";
  if (report != nullptr && machine.handed && !isReported(machine, *report))
    return revision + " was handed to it and its report does not name it yet";
  return "it gets all of it again";
}

std::string whyOf(const MachineStatus& machine, std::int64_t now, std::int64_t silentSeconds) {
  const Contact& contact = machine.contact;
  switch (machine.state) {
    case FleetState::current:
      if (machine.withdrawnAt == 0) break;
      return "it has given everything back; \"overhub remove-client --withdraw\" removes it";
    case FleetState::corrected:
      return std::to_string(machine.drift.values) +
             (machine.drift.values == 1 ? " value was" : " values were") + " changed on it and corrected";
    case FleetState::pending:
      return waitingText(machine, silentSeconds);
    case FleetState::restart:
    case FleetState::refused:
    case FleetState::back:
      return machine.report->summary.why;
    case FleetState::failed:
      return failureText(machine, now, silentSeconds);
    case FleetState::silent: {
      const ReportNote* const report = toldBy(machine, silentSeconds);
      std::string why = "not seen for longer than " + programs::durationText(silentSeconds);
      if (!contact.refusal.empty() || isFailure(contact)) {
        why += "; before, " + failureText(machine, now, silentSeconds);
      } else if (report != nullptr && report->summary.told != Told::good) {
        why += "; before, " + report->summary.why;
      }
      if (lacksSomething(machine, report)) why += "; " + waitingText(machine, silentSeconds);
      return why;
    }
    case FleetState::never:
      return "it has not called since it was added";
  }
  return {};
}

// When a state began that no revision began with; 0: not known.
std::int64_t sinceOf(const MachineStatus& machine, std::int64_t silentSeconds) {
  const Contact& contact = machine.contact;
  const ReportNote* const report = toldBy(machine, silentSeconds);
  switch (machine.state) {
    case FleetState::silent:
      return contact.lastSeen;
    case FleetState::failed:
      if (!contact.refusal.empty()) return contact.refusedSince;
      if (isFailure(contact)) return contact.outcomeSince;
      return report->summary.told == Told::failed ? report->summary.since : report->turned;
    case FleetState::back:
    case FleetState::refused:
    case FleetState::restart:
      return report->summary.since;
    case FleetState::corrected:
      return machine.drift.last;
    case FleetState::pending:
      // Acknowledged, and not reported yet.
      return contact.isCacheUnknown ? 0 : contact.handedTime;
    case FleetState::current:
    case FleetState::never:
      break;
  }
  return 0;
}

// The oldest revision that touches a machine and that it has not acknowledged; 0 when there is none. `said`
// need not reach back for a machine that has acknowledged nothing yet: it lacks all since it was added.
std::int64_t oldestLacking(const MachineStatus& machine, const Lists& said) {
  const std::int64_t proven = machine.contact.provenRevision;
  if (proven < machine.client.validFrom) return machine.client.validFrom;
  std::int64_t oldest = machine.contact.touched > proven ? machine.contact.touched : 0;
  forEachScope(machine, [&](const std::string& scope) {
    const auto found = said.find(scope);
    if (found == said.end()) return;
    const auto next = std::upper_bound(found->second.begin(), found->second.end(), proven);
    if (next != found->second.end() && (oldest == 0 || *next < oldest)) oldest = *next;
  });
  return oldest;
}

void addSince(soci::session& session, std::int64_t silentSeconds, FleetStatus& fleet) {
  std::int64_t lowest = kOpen;
  for (const MachineStatus& machine : fleet.machines)
    if (machine.state == FleetState::pending && machine.contact.provenRevision >= machine.client.validFrom)
      lowest = std::min(lowest, machine.contact.provenRevision);
  const Lists said = lowest == kOpen ? Lists() : saidAfter(session, lowest);

  std::vector<std::int64_t> revisions;  // that the states began with; 0: with none
  for (const MachineStatus& machine : fleet.machines) {
    std::int64_t revision = 0;
    if (machine.state == FleetState::never) revision = machine.client.validFrom;
    if (machine.state == FleetState::pending) revision = oldestLacking(machine, said);
    revisions.push_back(revision);
  }
  std::int64_t first = kOpen;
  for (const std::int64_t revision : revisions)
    if (revision != 0) first = std::min(first, revision);
  auto times = first == kOpen ? std::unordered_map<std::int64_t, std::int64_t>() : timesFrom(session, first);

  for (std::size_t i = 0; i < revisions.size(); ++i) {
    MachineStatus& machine = fleet.machines[i];
    machine.since = revisions[i] != 0 ? times[revisions[i]] : sinceOf(machine, silentSeconds);
    if (machine.state == FleetState::pending && machine.since != 0 &&
        (fleet.oldestPending == 0 || machine.since < fleet.oldestPending))
      fleet.oldestPending = machine.since;
  }
}

}  // namespace

const char* stateName(FleetState state) {
  switch (state) {
    case FleetState::current:
      return "current";
    case FleetState::corrected:
      return "corrected";
    case FleetState::pending:
      return "pending";
    case FleetState::restart:
      return "restart";
    case FleetState::refused:
      return "refused";
    case FleetState::back:
      return "back";
    case FleetState::failed:
      return "failed";
    case FleetState::silent:
      return "silent";
    case FleetState::never:
      break;
  }
  return "never";
}

bool MachineStatus::isReportOutdated(std::int64_t silentSeconds) const {
  return report && contact.outcomeTime - report->received > silentSeconds;
}

std::size_t FleetStatus::count(FleetState state) const {
  return static_cast<std::size_t>(
      std::count_if(machines.begin(), machines.end(),
                    [state](const MachineStatus& machine) { return machine.state == state; }));
}

std::size_t FleetStatus::countWithdrawn() const {
  return static_cast<std::size_t>(
      std::count_if(machines.begin(), machines.end(),
                    [](const MachineStatus& machine) { return machine.withdrawnAt != 0; }));
}

std::size_t FleetStatus::countClean() const {
  return static_cast<std::size_t>(std::count_if(
      machines.begin(), machines.end(), [](const MachineStatus& machine) { return machine.isClean; }));
}

FleetStatus fleetStatus(soci::session& session, std::vector<Client> clients, std::int64_t now,
                        std::int64_t silentSeconds) {
  FleetStatus fleet;
  fleet.now = now;
  fleet.revision = newestRevision(session);
  const ScopeFinder finder(groupsAt(session, fleet.revision), membersAt(session, fleet.revision));
  const Numbers said = newestSaid(session);
  std::unordered_map<std::int64_t, Contact> contacts;
  for (Contact& contact : allContacts(session)) contacts.emplace(contact.client, std::move(contact));
  const auto withdrawn = withdrawalsAt(session, fleet.revision);
  const std::set<std::int64_t> clean = cleanMachines(session, withdrawn);
  std::unordered_map<std::int64_t, ReportNote> reports;
  for (ReportNote& report : allReportNotes(session)) reports.emplace(report.client, std::move(report));
  const auto handed = newestHandedBatches(session);
  const auto drifts = driftsSince(session, now - kCorrectedSeconds);
  const auto holds = allHolds(session);

  for (Client& client : clients) {
    MachineStatus& machine = fleet.machines.emplace_back();
    machine.contact = contacts[client.id];
    machine.groups = finder.groupsOf(client);
    if (const auto found = reports.find(client.id); found != reports.end()) machine.report = found->second;
    if (const auto found = handed.find(client.id); found != handed.end()) machine.handed = found->second;
    if (const auto found = drifts.find(client.id); found != drifts.end()) machine.drift = found->second;
    if (const auto found = holds.find(client.id); found != holds.end()) machine.hold = found->second;
    machine.client = std::move(client);
    if (const auto found = withdrawn.find(machine.client.id); found != withdrawn.end()) {
      machine.withdrawnAt = found->second;
      machine.isClean = clean.contains(found->first);
    }
    machine.newest = machine.contact.touched;
    forEachScope(machine, [&](const std::string& scope) {
      const auto found = said.find(scope);
      if (found != said.end()) machine.newest = std::max(machine.newest, found->second);
    });
    machine.state = stateOf(machine, now, silentSeconds);
    machine.why = whyOf(machine, now, silentSeconds);
  }
  addSince(session, silentSeconds, fleet);
  return fleet;
}
