// What is to be said of a machine without asking it: what is not as it should be, why, since when, and the
// way out; and what else its newest report and the store tell.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "overhub/store/database.h"
#include "overhub/store/fleet_state.h"

struct Finding {
  std::string machine;
  bool isWrong = false;  // somebody has to see to it; otherwise it is only told
  std::string kind;      // a word, for programs
  std::string path;
  std::string name;
  std::string module;
  std::int64_t since = 0;  // by the store's clock; 0: not known
  std::string why;
  bool namesPlace = false;  // `why` says path and name itself
  std::string wayOut;       // of what is wrong, or keeps coming back
};

// Of one machine of the fleet, what is wrong first. Within a unit of work. Texts are as the machine sent
// them, and to be escaped.
std::vector<Finding> findingsOf(soci::session& session, const MachineStatus& machine, std::int64_t now,
                                std::int64_t silentSeconds);
