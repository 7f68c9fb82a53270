#include "overhub/commands/fleet_list.h"

#include "overhub/commands/target.h"

void FleetQuestion::describe(programs::CommandLine::Options options) {
  options
      .bounded("--period SECONDS", period, 1, 366 * 86400,
               "How often the machines call, unless it is as usual")
      .bounded("--silent-after N", silentAfter, 1, 1000000,
               "A machine is silent that has not been seen for longer than this many periods");
}

CWmError askFleet(const Database& database, soci::session& session, const FleetQuestion& question,
                  FleetStatus& fleet) {
  std::vector<Client> clients;
  CWmError error = clientsOfTarget(session, question.target, clients);
  if (!error.IsError())
    fleet = fleetStatus(session, std::move(clients), database.now(session),
                        std::int64_t{question.period} * question.silentAfter);
  return error;
}

Listing machineList() {
  return {"machines",
          {{"Name", "name", Listing::Kind::text},
           {"State", "state", Listing::Kind::text},
           {"Since", "since", Listing::Kind::age},
           {"Last seen", "lastSeen", Listing::Kind::age},
           {"Reported", "reported", Listing::Kind::age, true},
           {"Has", "hasRevision", Listing::Kind::number},
           {"Wanted", "wantedRevision", Listing::Kind::number},
           {"Groups", "groups", Listing::Kind::texts},
           {"Withdrawn", "withdrawn", Listing::Kind::yesNo, true},
           {"Why", "why", Listing::Kind::text}}};
}

void addMachine(Listing& list, const MachineStatus& machine) {
  list.addRow({machine.client.name, stateName(machine.state),
               machine.since == 0 ? Listing::Cell() : Listing::Cell(machine.since), machine.contact.lastSeen,
               machine.report ? machine.report->received : 0, machine.contact.provenRevision, machine.newest,
               machine.groups, machine.withdrawnAt != 0, machine.why});
}
