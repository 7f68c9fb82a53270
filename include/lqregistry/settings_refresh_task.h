// The Additional Settings refresh: reapplies on a timer what the server last sent, from the cache, and cleans
// temporary settings out of it. No session to the server is opened.
#pragma once

#include <cstdint>

#include "lqregistry/LqExport.h"
#include "lqregistry/LqPeriodicTaskStatus.h"

// The one setting that a refresh neither applies nor keeps in the cache.
inline constexpr const char* kExcludedSetting = "sCOHDbStatus";

// Task callback, found by its plain name: sets the task's frequency from "QMachineMaint" /
// "nTimer_AdditionalSettingsRefresh" (minutes; 0 or absent: 60) and runs one refresh. Always 0.
extern "C" LQ_EXPORT int AdditionalSettingsRefresh_OnTimer(LqPeriodicTaskStatus* status);

// One refresh pass. Always 1: failures stand in the log only, so that a missing cache is not a failed task.
// Holds the LqPassLock until the cache is stored; does nothing, with an error line, when another pass has it.
LQ_EXPORT unsigned additionalSettingsRefresh();

// This machine's client id, looked up once for the life of the process; 0 on failure, which the next call
// tries again. Any thread.
LQ_EXPORT std::uint64_t getClientId();
