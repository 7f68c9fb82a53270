// What the log-monitoring helper library gives: two procedures under their plain names. They may be called
// from any thread, and the library may be unloaded as soon as they have returned.
#pragma once

#include <cstdint>

#include "lqregistry/LqExport.h"

// Checks the space that the logs of this client take; 0 stands for a client whose id is not known.
extern "C" LQ_EXPORT void LMSpaceCheck(std::uint64_t clientId);

// Evaluates the alert rules on the monitored logs.
extern "C" LQ_EXPORT void processLogMonitoringAlertRule();
