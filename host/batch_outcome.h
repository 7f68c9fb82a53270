// What became of each record of a batch: judged by what the registry holds now, not by what anybody says.
#pragma once

#include <string>
#include <vector>

#include "host/pass_observer.h"

namespace host {

enum class Outcome { kAdded, kChanged, kRemoved, kLeft, kReset, kFailed };

const char* outcomeWord(Outcome outcome);

struct RecordOutcome {
  std::string keyPath;
  std::string valueName;
  Outcome outcome = Outcome::kLeft;
  std::string value;  // what the registry holds now, protected values masked; empty when there is none
  std::string note;   // why, where it is not plain
};

// One line for each value that the batch names, in order; where it names one twice, the last record counts.
std::vector<RecordOutcome> judgeBatch(const PassFacts& facts);

}  // namespace host
