// Keeps a report within what the server takes: problems first, then verdicts, then what was corrected. What
// does not fit is counted.
#pragma once

#include "records/host_report.h"

namespace host {

HostReport::Report bounded(const HostReport::Report& whole);

// A text for people within its bound, cut between characters.
std::string boundedText(const std::string& text);

}  // namespace host
