// What the server says, when it is asked before a pass, of the batch that the pass is about to fetch.
#pragma once

#include "records/host_report.h"

namespace host {

struct PassTerms {
  std::int64_t demand = HostReport::kDemandNothing;  // see HostReport::Answer
  bool isReleased = false;                           // what this machine went back from may be applied again
};

}  // namespace host
