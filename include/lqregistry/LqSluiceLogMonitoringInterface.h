// Log monitoring: two checks that decide whether log-monitoring work applies to this machine and hand it to
// the helper library, and the client id that they work for.
//
// The helper library "libLqLMHelper.so" lies in the base home directory; each call loads it, calls one of its
// procedures and releases it again. Any thread may call each function at any time; nothing is thrown. The
// checks are found by their plain names; getClientId is called by modules that link the library.
#pragma once

#include "lqregistry/LqCriticalSection.h"
#include "lqregistry/LqExport.h"

// Both checks: 0 done or not applicable, 1 failed, with the reason in the log.

// Checks the log space through the helper's "LMSpaceCheck" where Spoolhand is installed with its analytics
// engine enabled, and on the server machine always; there, the files "LM*" of the log-monitoring work
// directory are deleted afterwards. "Spoolhand"/"nDisableLMPrune" other than 0 switches all of it off.
extern "C" LQ_EXPORT int LqSluiceLogMonitoringInterface_CheckLogMonitoringData();

// Runs the helper's "processLogMonitoringAlertRule". A machine without the Index Server package is a failure
// here, not merely a machine that this does not apply to: alert rules are only set up where there is one.
extern "C" LQ_EXPORT int LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule();

// This machine's client id, looked up once for the life of the process; 0 on failure, which the next call
// tries again. With C++ linkage, unlike the other two: its callers link the library.
LQ_EXPORT unsigned long LqSluiceLogMonitoringInterface_getClientId();

// Held while the client id is looked up. Modules that must not run beside the first look-up may take it.
extern LQ_EXPORT LqCriticalSection criticalSecForClientId;
