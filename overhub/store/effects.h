// What a change does to each machine that it reaches, before it is made.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "overhub/store/change.h"

// What is valid of the values that a change may touch: for each scope and name, what the scope says.
using TouchedSettings = std::map<std::pair<std::string, std::string>, std::vector<Setting>>;

// Who is in which group.
struct Fleet {
  std::vector<Client> clients;
  std::vector<Group> groups;
  std::vector<Member> members;
  std::set<std::int64_t> withdrawn;  // the ids of clients from which everything is withdrawn
};

// Compares what machines get before and after, of these names.
Effects weigh(const std::set<std::string>& names, const TouchedSettings& before, const TouchedSettings& after,
              const Fleet& fleetBefore, const Fleet& fleetAfter);
