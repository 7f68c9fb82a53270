// `overhub status`: which machines are as they should be, which are not, and why.
#include <algorithm>
#include <map>
#include <memory>

#include "common/age_text.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/drift_list.h"
#include "overhub/commands/fleet_list.h"
#include "overhub/commands/prometheus.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"

namespace {

constexpr const char* kFooter = R"(Each machine has one state, the last of these that is true of it:
  current    what touches it is in effect: by its report when it makes any, else by its acknowledgement
  corrected  a value was changed on it, and corrected, within a day
  pending    a newer revision waits for it
  restart    a module has to be restarted first
  refused    a module refused a value, or did not say that it works with it
  failed     its last hand-out was refused, or it says that it could not apply it all
  back       it went back to what it held before
  silent     has not been seen for longer than --silent-after periods
  never      has not called since it was added
One from which "remove-client --withdraw" takes everything back is pending until it has given it; --withdrawn lists
those.

Exit code 0: all machines asked about are current or corrected; 6: at least one is not. With --drift: 0.
"overhub why" says more of a machine.

Examples:
  overhub status
  overhub status @berlin --failed --silent
  overhub status --drift
  overhub status --prometheus > /var/lib/collector/overhub.prom.new)";

struct Status {
  FleetQuestion question;
  bool isAll = false;
  bool isShown[kFleetStates.size()] = {};  // asked for by name
  bool isWithdrawnShown = false;
  bool isPrometheus = false;
  bool isDrift = false;
  Listing list = machineList();

  bool isWanted(const MachineStatus& machine) const {
    if (isAll) return true;
    if (isWithdrawnShown && machine.withdrawnAt != 0) return true;
    const bool isAny = isWithdrawnShown ||
                       std::any_of(std::begin(isShown), std::end(isShown), [](bool shown) { return shown; });
    return isAny ? isShown[static_cast<std::size_t>(machine.state)] : machine.state != FleetState::current;
  }
};

// What else is under way, and waits for somebody in the end.
std::string withdrawalText(const FleetStatus& fleet) {
  const std::size_t count = fleet.countWithdrawn();
  if (count == 0) return {};
  std::string text = "everything is withdrawn from " + std::to_string(count) + " of them";
  if (const std::size_t clean = fleet.countClean(); clean != 0)
    text +=
        "; " + std::to_string(clean) + " gave it back, \"overhub remove-client --withdraw\" removes those";
  return text + "\n";
}

// "10000 machines at revision 7: 9998 current, 2 pending"; what there is none of is left out.
std::string summary(const FleetStatus& fleet) {
  std::string states;
  for (const FleetState state : kFleetStates) {
    const std::size_t count = fleet.count(state);
    if (count != 0) states += (states.empty() ? ": " : ", ") + std::to_string(count) + " " + stateName(state);
  }
  const std::size_t all = fleet.machines.size();
  return std::to_string(all) + (all == 1 ? " machine" : " machines") + " at revision " +
         std::to_string(fleet.revision) + states + "\n" + withdrawalText(fleet);
}

void fill(Listing& list, const Status& wanted, const FleetStatus& fleet) {
  list.addFact({"Time", "time", Listing::Kind::time}, fleet.now);
  list.addFact({"Revision", "revision", Listing::Kind::number}, fleet.revision);
  list.addFact({"Clients", "clients", Listing::Kind::number}, fleet.machines.size());
  for (const FleetState state : kFleetStates)
    list.addFact({stateName(state), stateName(state), Listing::Kind::number}, fleet.count(state));
  list.addFact({"Withdrawn", "withdrawn", Listing::Kind::number}, fleet.countWithdrawn());
  list.addFact({"Oldest pending", "oldestPending", Listing::Kind::time}, fleet.oldestPending);
  for (const MachineStatus& machine : fleet.machines)
    if (wanted.isWanted(machine)) addMachine(list, machine);
}

std::string metricsText(const FleetStatus& fleet) {
  using Type = MetricsText::Type;
  MetricsText metrics;
  metrics.family("overhub_clients", Type::gauge, "Clients by their state");
  for (const FleetState state : kFleetStates)
    metrics.sample(fleet.count(state), {{"state", stateName(state)}});
  std::map<std::string, std::array<std::size_t, kFleetStates.size()>> groups;
  for (const MachineStatus& machine : fleet.machines)
    for (const std::string& group : machine.groups) ++groups[group][static_cast<std::size_t>(machine.state)];
  metrics.family("overhub_group_clients", Type::gauge, "Clients of a group by their state");
  for (const auto& [group, counts] : groups) {
    for (const FleetState state : kFleetStates)
      metrics.sample(counts[static_cast<std::size_t>(state)],
                     {{"group", group}, {"state", stateName(state)}});
  }
  metrics.family("overhub_clients_known", Type::gauge, "Clients in all");
  metrics.sample(fleet.machines.size());
  metrics.family("overhub_clients_withdrawn", Type::gauge, "Clients from which everything is withdrawn");
  metrics.sample(fleet.countWithdrawn());
  std::int64_t corrected = 0;
  for (const MachineStatus& machine : fleet.machines) corrected += machine.drift.values;
  metrics.family("overhub_corrected_values", Type::gauge,
                 "Values that were changed on clients and corrected within a day");
  metrics.sample(corrected);
  metrics.family("overhub_reporting_clients", Type::gauge, "Clients that have ever reported");
  metrics.sample(std::count_if(fleet.machines.begin(), fleet.machines.end(),
                               [](const MachineStatus& machine) { return machine.report.has_value(); }));
  metrics.family("overhub_newest_revision", Type::gauge, "The newest revision of the store");
  metrics.sample(fleet.revision);
  metrics.family("overhub_oldest_pending_seconds", Type::gauge,
                 "Seconds since the oldest change that a pending client lacks; 0 when none lacks any");
  metrics.sample(fleet.oldestPending == 0 ? 0 : std::max<std::int64_t>(0, fleet.now - fleet.oldestPending));
  metrics.family("overhub_status_timestamp_seconds", Type::gauge, "When these figures were taken");
  metrics.sample(fleet.now);
  return metrics.text();
}

std::string textFor(Status& wanted, const FleetStatus& fleet) {
  if (wanted.isPrometheus) return metricsText(fleet);
  fill(wanted.list, wanted, fleet);
  if (wanted.list.isForPrograms()) return wanted.list.output();
  // Ages go by the clock that wrote the times, and that may be another machine's.
  return summary(fleet) + (wanted.list.rowCount() == 0 ? "" : "\n" + wanted.list.text(fleet.now));
}

int listDrifts(const Database& database, Status& wanted) {
  std::vector<Client> clients;
  std::vector<DriftCount> drifts;
  std::int64_t now = 0;
  const CWmError error = database.read([&](soci::session& session) {
    now = database.now(session);
    CWmError fault = clientsOfTarget(session, wanted.question.target, clients);
    drifts = allDrifts(session);
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  Listing list = driftList();
  addDrifts(list, clients, drifts);
  print(wanted.list.isForPrograms() ? list.json()
        : list.rowCount() == 0      ? "no value was changed on a machine\n"
                                    : list.text(now));
  return kExitOk;
}

int status(const Store& store, Status& wanted) {
  if (wanted.isDrift) return listDrifts(store.database(), wanted);
  const Database& database = store.database();
  FleetStatus fleet;
  const CWmError error = database.read(
      [&](soci::session& session) { return askFleet(database, session, wanted.question, fleet); });
  if (error.IsError()) return storeFailed(error);
  print(textFor(wanted, fleet));
  return fleet.isAllInEffect() ? kExitOk : kExitNotCurrent;
}

}  // namespace

void addStatus(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Status>();
  auto options =
      line.add("status", "Say how things stand with the machines; lists those that are not current",
               onStore(place, [wanted](const Store& store) { return status(store, *wanted); }));
  const auto shown = [&wanted](FleetState state) -> bool& {
    return wanted->isShown[static_cast<std::size_t>(state)];
  };
  options.option("TARGET", wanted->question.target, kTargetForms)
      .flag("--all", wanted->isAll, "List all machines")
      .flag("--current", shown(FleetState::current), "List those that are current")
      .flag("--pending", shown(FleetState::pending), "List those for which a revision waits")
      .flag("--corrected", shown(FleetState::corrected), "List those on which values were corrected")
      .flag("--restart", shown(FleetState::restart), "List those on which a module has to be restarted")
      .flag("--refused", shown(FleetState::refused), "List those on which a module refuses a value")
      .flag("--back", shown(FleetState::back), "List those that went back")
      .flag("--failed", shown(FleetState::failed), "List those that failed")
      .flag("--silent", shown(FleetState::silent), "List those that are silent")
      .flag("--never", shown(FleetState::never), "List those that have never called");
  options.flag("--withdrawn", wanted->isWithdrawnShown, "List those from which everything is withdrawn");
  wanted->question.describe(options);
  wanted->list.describe(options);
  options.flag("--prometheus", wanted->isPrometheus, "Print figures for a collector, and no list")
      .excludes("--json");
  options.flag("--drift", wanted->isDrift, "List instead which values get changed on which machines")
      .excludes("--prometheus");
  options.footer(kFooter);
}
