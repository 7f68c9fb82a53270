// What a change does to each machine that it reaches, before it is made.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "overhub/store/change.h"
#include "overhub/store/scope_finder.h"

// What is valid of the values that a change may touch: for each scope and name, what the scope says.
using TouchedSettings = std::map<std::pair<std::string, std::string>, std::vector<Setting>>;

// Compares what machines get before and after, of these names, at a time in seconds since the epoch.
Effects weigh(const std::set<std::string>& names, const TouchedSettings& before, const TouchedSettings& after,
              const Fleet& fleetBefore, const Fleet& fleetAfter, std::int64_t now);
