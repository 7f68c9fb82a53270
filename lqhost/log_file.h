// Which file the log of a host process goes to.
#pragma once

#include "common/log_options.h"
#include "lqregistry/CWmError.h"

namespace host {

// Sets the log up. Where the command line names no place, it is the log directory of the instance in focus,
// or standard error while the instance has none; "-" is standard error. An error when the place cannot be
// used, which is no reason to end unless it was named: the log goes to standard error then.
CWmError setUpLog(programs::LogOptions options, bool isResident);

}  // namespace host
