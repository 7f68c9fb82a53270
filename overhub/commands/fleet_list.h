// The state of the fleet as commands ask for it, and as they list it.
#pragma once

#include <cstdint>
#include <string>

#include "common/command_line.h"
#include "common/sync_period.h"
#include "lqregistry/CWmError.h"
#include "overhub/commands/listing.h"
#include "overhub/store/fleet_state.h"
#include "overhub/store/scope.h"

// Whom a command asks about, and when somebody is missed.
struct FleetQuestion {
  std::string target = kAllScope;
  std::uint32_t period = programs::kSynchronisationPeriod;
  // One pass may be lost to a restart, and a second to the network, before anybody has to be told.
  std::uint32_t silentAfter = 3;

  // What describes the machines that are meant stays with the command.
  void describe(programs::CommandLine::Options options);
};

// Within a unit of work; the machines come as people count them.
CWmError askFleet(const Database& database, soci::session& session, const FleetQuestion& question,
                  FleetStatus& fleet);

// An empty list of machines, and a machine added to it.
Listing machineList();
void addMachine(Listing& list, const MachineStatus& machine);
