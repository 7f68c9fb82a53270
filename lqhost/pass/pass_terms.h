// What the server says, when it is asked before a pass, of the batch that the pass is about to fetch.
#pragma once

#include <string>

#include "records/host_report.h"

namespace host {

struct PassTerms {
  std::int64_t demand = HostReport::kDemandNothing;  // see HostReport::Answer
  bool isReleased = false;                           // what this machine went back from may be applied again
  // The digest of the batch, whose changes this machine remembers, that the server wants it to go back from;
  // empty: it wants nothing of the kind.
  std::string goBackFrom{};
};

}  // namespace host
