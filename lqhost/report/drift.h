// Drift: values that a pass, a refresh or a push found changed on the machine, and corrected.
#pragma once

#include <cstdint>

#include "lqhost/pass/cache_before.h"
#include "lqhost/pass/registry_writes.h"
#include "records/host_report.h"

namespace host {

// Of what was changed, the places for which the settings cache of before wanted what the registry holds now:
// what was in the way had been put there by somebody else. Reads that cache only when something was changed.
//
// To be asked only where cache and registry belonged together before (no note of unsettled_work.h stood);
// otherwise this host's own writes would look like somebody else's.
HostReport::DriftList driftOf(const RegistryWrites& writes, const CacheBefore& before, std::int64_t now);

}  // namespace host
