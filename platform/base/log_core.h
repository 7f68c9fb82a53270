// The process-wide log behind ObDebug and ObEvent: hands formatted lines to the sinks and captures.
#pragma once

#include <atomic>

#include "lqregistry/ObLog.h"

namespace oblog {

// Lines above this level are dropped before they are formatted: the threshold, or a capture's level where
// that is higher.
extern std::atomic<int> effectiveLevel;

void write(const Line& line);

}  // namespace oblog
