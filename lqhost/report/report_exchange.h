// One session with the server's report service.
#pragma once

#include <chrono>
#include <cstdint>

#include "lqregistry/CWmError.h"
#include "records/host_report.h"

namespace host {

// This machine's id among the server's clients; 0 when it is not known.
std::int64_t ownClientId();

// Sends the report and receives its answer. kLqErrAttachRefused: the server has no such service. `isSent` is
// set once the report has left. Takes no longer than until the deadline, but for a look-up of the server's
// name.
CWmError exchangeReport(const HostReport::Report& report, std::chrono::steady_clock::time_point deadline,
                        HostReport::Answer& answer, bool& isSent);

}  // namespace host
