// What has to be known of a batch once it is gone: taken as it arrives, in one walk and without a copy.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lqhost/pass/failure_reason.h"
#include "lqregistry/OBGui.h"

namespace host {

// A record that something is wrong with.
struct RecordProblem {
  std::string keyPath;  // in its normal form; empty, with the name, for the whole machine
  std::string valueName;
  FailureReason reason;
};

struct BatchFacts {
  std::size_t records = 0;
  std::string digest;                  // of records/batch_digest.h; empty when it could not be taken
  std::vector<RecordProblem> refused;  // what applying refuses in any case
  std::vector<RecordProblem> tooLong;  // values that are stored, and that modules cannot read
  std::vector<RecordProblem> secrets;  // the protected ones, without a reason
};

BatchFacts factsOf(const OBGui::KeyList& batch);

}  // namespace host
