#include "lqhost/commands/exit_codes.h"

namespace host {

int exitCodeOf(RunOutcome outcome) {
  switch (outcome) {
    case RunOutcome::kDone:
    case RunOutcome::kApplied:
      return kExitOk;
    case RunOutcome::kPartly:
      return kExitPartly;
    case RunOutcome::kUnacknowledged:
      return kExitUnacknowledged;
    case RunOutcome::kSkipped:
      return kExitSkipped;
    case RunOutcome::kCacheLost:
      return kExitCacheLost;
    case RunOutcome::kCacheKept:
      return kExitCacheKept;
    case RunOutcome::kCacheUnreadable:
      return kExitCacheUnreadable;
    case RunOutcome::kFailed:
    case RunOutcome::kPutOff:
      break;
  }
  return kExitFailed;
}

}  // namespace host
