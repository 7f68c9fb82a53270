// `overhub report`: the state of the fleet as a page that can be mailed, printed and archived.
#include <algorithm>
#include <array>
#include <map>
#include <memory>

#include "common/natural_order.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/definitions.h"
#include "overhub/commands/drift_list.h"
#include "overhub/commands/fleet_list.h"
#include "overhub/commands/html_page.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/change.h"
#include "overhub/store/file_access.h"
#include "overhub/store/groups.h"
#include "overhub/store/revisions.h"
#include "overhub/store/settings.h"

namespace {

constexpr const char* kFooter =
    R"(The page needs nothing beside it and runs no script. It holds settings, though no secrets, so it is written
with mode 0600; a page that is there already is replaced at once.

Example:
  overhub report /root/fleet.html)";

constexpr std::int64_t kRevisions = 25;
// Beyond which a page is no longer read.
constexpr std::size_t kMachines = 1000;
// Of the settings of single machines, beyond which a page is no longer read.
constexpr std::size_t kMachineSettings = 1000;

struct Report {
  FleetQuestion question;
  std::string file;
  std::string definitions;
};

// What the page tells, all of one moment.
struct Facts {
  FleetStatus fleet;
  std::vector<Group> groups;  // by number
  std::vector<Revision> revisions;
  std::vector<DriftCount> drifts;
  std::vector<std::pair<std::string, Setting>> settings;  // with the scope as a person names it
};

bool isMachines(const Setting& setting) {
  return clientOfScope(setting.scope) != 0;
}

CWmError collect(const Database& database, soci::session& session, const FleetQuestion& question,
                 Facts& facts) {
  facts = Facts();
  CWmError error = askFleet(database, session, question, facts.fleet);
  if (error.IsError()) return error;
  facts.groups = groupsAt(session, facts.fleet.revision);
  std::sort(facts.groups.begin(), facts.groups.end(),
            [](const Group& a, const Group& b) { return a.number < b.number; });
  facts.revisions = newestRevisions(session, kRevisions);
  facts.drifts = allDrifts(session);
  const ScopeNames names(session);
  for (Setting& setting : allSettings(session)) {
    std::string scope = names.of(setting.scope);
    facts.settings.emplace_back(std::move(scope), std::move(setting));
  }
  // All and the groups before the machines, each as people count.
  std::sort(facts.settings.begin(), facts.settings.end(), [](const auto& a, const auto& b) {
    if (isMachines(a.second) != isMachines(b.second)) return isMachines(b.second);
    if (a.first != b.first) return programs::comesBefore(a.first, b.first);
    return a.second.identity < b.second.identity;
  });
  return {};
}

Tone toneOf(FleetState state) {
  switch (state) {
    case FleetState::current:
    case FleetState::corrected:
      return Tone::good;
    case FleetState::pending:
      return Tone::neutral;
    case FleetState::failed:
    case FleetState::refused:
    case FleetState::back:
      return Tone::bad;
    case FleetState::restart:
    case FleetState::silent:
      return Tone::warning;
    case FleetState::never:
      break;
  }
  return Tone::quiet;
}

void addStates(HtmlPage& page, const FleetStatus& fleet) {
  page.section("At a glance");
  std::vector<NamedCount> counts;
  counts.reserve(kFleetStates.size());
  for (const FleetState state : kFleetStates)
    counts.push_back({stateName(state), fleet.count(state), toneOf(state)});
  page.stackedBar("State of the machines", counts);
  page.paragraph("The store is at revision " + std::to_string(fleet.revision) + ".");
  if (const std::size_t count = fleet.countWithdrawn(); count != 0)
    page.paragraph("Everything is withdrawn from " + std::to_string(count) + " of the machines.");
}

// Where somebody has to look, the earlier the sooner: a change for all makes all of them pending.
constexpr std::array kBySeverity{FleetState::back,    FleetState::failed,   FleetState::refused,
                                 FleetState::restart, FleetState::silent,   FleetState::never,
                                 FleetState::pending, FleetState::corrected};
static_assert(kBySeverity.size() + 1 == kFleetStates.size(), "each but current");

void addMachines(HtmlPage& page, const FleetStatus& fleet) {
  page.section("Machines that are not current");
  Listing list = machineList();
  std::size_t count = 0;
  for (const FleetState state : kBySeverity)
    for (const MachineStatus& machine : fleet.machines)
      if (machine.state == state && ++count <= kMachines) addMachine(list, machine);
  page.table(list);
  if (count > kMachines)
    page.paragraph("And " + std::to_string(count - kMachines) + " more, which \"overhub status\" lists.");
}

void addGroups(HtmlPage& page, const Facts& facts) {
  page.section("Groups");
  std::map<std::string, std::array<std::uint64_t, kFleetStates.size()>> byGroup;
  for (const MachineStatus& machine : facts.fleet.machines)
    for (const std::string& group : machine.groups) ++byGroup[group][static_cast<std::size_t>(machine.state)];
  std::vector<NamedCount> sizes;
  std::vector<NamedCount> faulty;
  std::vector<Listing::Column> columns{{"Group", "group", Listing::Kind::text},
                                       {"Number", "number", Listing::Kind::number},
                                       {"Machines", "machines", Listing::Kind::number}};
  for (const FleetState state : kFleetStates)
    columns.push_back({stateName(state), stateName(state), Listing::Kind::number});
  Listing list("groups", columns);
  for (const Group& group : facts.groups) {
    const auto& counts = byGroup[group.name];
    std::uint64_t all = 0;
    for (const std::uint64_t count : counts) all += count;
    sizes.push_back({group.name, all, Tone::neutral});
    faulty.push_back({group.name, all - counts[static_cast<std::size_t>(FleetState::current)], Tone::bad});
    std::vector<Listing::Cell> cells{group.name, group.number, all};
    for (const std::uint64_t count : counts) cells.emplace_back(count);
    list.addRow(std::move(cells));
  }
  if (!facts.groups.empty()) {
    page.barChart("Machines of each group", sizes);
    page.barChart("Of these, not current", faulty);
  }
  page.table(list);
}

void addDrifts(HtmlPage& page, const Facts& facts) {
  page.section("Values that get changed on machines");
  Listing list = driftList();
  std::vector<Client> clients;
  for (const MachineStatus& machine : facts.fleet.machines) clients.push_back(machine.client);
  addDrifts(list, clients, facts.drifts);
  page.table(list);
}

void addRevisions(HtmlPage& page, const Facts& facts) {
  page.section("Newest revisions");
  Listing list("revisions", {{"Revision", "revision", Listing::Kind::number},
                             {"Time", "time", Listing::Kind::time},
                             {"Who", "who", Listing::Kind::text},
                             {"Why", "why", Listing::Kind::text},
                             {"Command", "command", Listing::Kind::text}});
  for (const Revision& revision : facts.revisions)
    list.addRow({revision.number, revision.time, revision.who, revision.why, revision.command});
  page.table(list);
}

void addSettings(HtmlPage& page, const Facts& facts, const Definitions& definitions) {
  page.section("Settings");
  Listing list("settings", {{"Scope", "scope", Listing::Kind::text},
                            {"Path", "path", Listing::Kind::text},
                            {"Name", "name", Listing::Kind::text},
                            {"Value", "value", Listing::Kind::text},
                            {"Until", "until", Listing::Kind::end},
                            {"Flags", "flags", Listing::Kind::text},
                            {"Revision", "revision", Listing::Kind::number},
                            {"Meaning", "meaning", Listing::Kind::text}});
  std::size_t machines = 0;
  for (const auto& [scope, setting] : facts.settings) {
    if (isMachines(setting) && ++machines > kMachineSettings) continue;
    const bool hasValue = !setting.isRemoval && !setting.identity.isKey;
    list.addRow({scope, setting.path, setting.identity.name, hasValue ? shownValue(setting) : "",
                 setting.expires, shownFlags(setting), setting.validFrom,
                 definitions.sentenceOf(setting.path, setting.identity.name)});
  }
  page.table(list);
  if (machines > kMachineSettings)
    page.paragraph("And " + std::to_string(machines - kMachineSettings) +
                   " more of single machines, which \"overhub show\" lists.");
}

int report(const Store& store, const Report& wanted) {
  const Database& database = store.database();
  Definitions definitions;
  CWmError error = loadDefinitions(wanted.definitions, store.directory(), definitions);
  Facts facts;
  if (!error.IsError())
    error = database.read(
        [&](soci::session& session) { return collect(database, session, wanted.question, facts); });
  if (error.IsError()) return storeFailed(error);

  HtmlPage page("State of the fleet", facts.fleet.now);
  addStates(page, facts.fleet);
  addGroups(page, facts);
  addMachines(page, facts.fleet);
  addDrifts(page, facts);
  addRevisions(page, facts);
  addSettings(page, facts, definitions);
  error = file_access::replace(wanted.file, page.text());
  if (error.IsError()) return storeFailed(error);
  print("The page is in " + wanted.file + "\n");
  return kExitOk;
}

}  // namespace

void addReport(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Report>();
  auto options = line.add("report", "Write a page that shows how things stand with the machines",
                          onStore(place, [wanted](const Store& store) { return report(store, *wanted); }));
  options.required("FILE", wanted->file, "The page, in HTML")
      .option("--target TARGET", wanted->question.target, std::string("The machines: ") + kTargetForms)
      .option("--definitions FILE", wanted->definitions,
              "What the settings mean; else definitions.json of the store's directory")
      .fromEnvironment("OVERHUB_DEFINITIONS");
  wanted->question.describe(options);
  options.footer(kFooter);
}
