// `overhub why`: what is not as it should be on machines, since when, why, and the way out.
#include <memory>

#include "common/age_text.h"
#include "common/terminal_text.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/findings.h"
#include "overhub/commands/fleet_list.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"

namespace {

constexpr const char* kFooter =
    R"(Answers from each machine's newest report, without asking the machine. Of a machine without one it says what
its acknowledgements do.

Exit code 0: nothing is wrong with any of them; 6: something is.

Examples:
  overhub why pc1
  overhub why @berlin --json)";

struct Why {
  FleetQuestion question;
  Listing list{"findings",
               {{"Machine", "machine", Listing::Kind::text},
                {"Wrong", "isWrong", Listing::Kind::yesNo},
                {"Kind", "kind", Listing::Kind::text},
                {"Path", "path", Listing::Kind::text},
                {"Name", "name", Listing::Kind::text},
                {"Module", "module", Listing::Kind::text},
                {"Since", "since", Listing::Kind::time},
                {"Why", "why", Listing::Kind::text},
                {"Way out", "wayOut", Listing::Kind::text}}};
};

struct Told {
  MachineStatus machine;
  std::vector<Finding> findings;
};

bool isWell(const std::vector<Finding>& findings) {
  // What is wrong stands first.
  return findings.empty() || !findings.front().isWrong;
}

std::string lineOf(const Finding& finding, std::int64_t now) {
  const bool isNamed = (finding.path.empty() && finding.name.empty()) || finding.namesPlace;
  std::string text =
      isNamed ? "" : placeText(finding.path, finding.name) + (finding.kind == "drift" ? " " : ": ");
  text += finding.why;
  if (finding.isWrong && finding.since != 0)
    text += " (for " + programs::durationText(now - finding.since) + ")";
  return programs::escapedForTerminal(text);
}

std::string textOf(const Told& told, std::int64_t now) {
  std::string text =
      programs::escapedForTerminal(told.machine.client.name) + ": " + stateName(told.machine.state) + "\n";
  for (const Finding& finding : told.findings) {
    text += (finding.isWrong ? "  ! " : "    ") + lineOf(finding, now) + "\n";
    if (!finding.wayOut.empty()) text += "      way out: " + finding.wayOut + "\n";
  }
  return text;
}

std::string textFor(Why& wanted, const FleetStatus& fleet, const std::vector<Told>& all) {
  if (wanted.list.isForPrograms()) {
    wanted.list.addFact({"Time", "time", Listing::Kind::time}, fleet.now);
    wanted.list.addFact({"Machines", "machines", Listing::Kind::number}, all.size());
    for (const Told& told : all) {
      for (const Finding& finding : told.findings) {
        wanted.list.addRow({finding.machine, finding.isWrong, finding.kind, finding.path, finding.name,
                            finding.module, finding.since, finding.why, finding.wayOut});
      }
    }
    return wanted.list.output();
  }
  std::string text;
  for (const Told& told : all) text += (text.empty() ? "" : "\n") + textOf(told, fleet.now);
  return text;
}

int why(const Store& store, Why& wanted) {
  const Database& database = store.database();
  const std::int64_t silentSeconds = std::int64_t{wanted.question.period} * wanted.question.silentAfter;
  FleetStatus fleet;
  std::vector<Told> all;
  const CWmError error = database.read([&](soci::session& session) {
    all.clear();
    CWmError fault = askFleet(database, session, wanted.question, fleet);
    for (const MachineStatus& machine : fleet.machines)
      all.push_back({machine, findingsOf(session, machine, fleet.now, silentSeconds)});
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  print(textFor(wanted, fleet, all));
  const bool isAllWell =
      std::all_of(all.begin(), all.end(), [](const Told& told) { return isWell(told.findings); });
  return isAllWell ? kExitOk : kExitNotCurrent;
}

}  // namespace

void addWhy(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Why>();
  auto options = line.add("why", "Say what is not as it should be on machines, why, and the way out",
                          onStore(place, [wanted](const Store& store) { return why(store, *wanted); }));
  options.required("TARGET", wanted->question.target, kTargetForms);
  wanted->question.describe(options);
  wanted->list.describe(options);
  options.footer(kFooter);
}
