#include "lqhost/pass/pass_outcome.h"

#include "lqregistry/OBGui.h"

namespace host {

const char* outcomeText(RunOutcome outcome) {
  switch (outcome) {
    case RunOutcome::kDone:
      return "done";
    case RunOutcome::kApplied:
      return "applied and acknowledged";
    case RunOutcome::kPartly:
      return "not everything could be applied";
    case RunOutcome::kUnacknowledged:
      return "applied, but the server has not recorded the acknowledgement";
    case RunOutcome::kSkipped:
      return "skipped: switched off, or not joined fully";
    case RunOutcome::kFailed:
      return "failed";
    case RunOutcome::kCacheLost:
      return "applied, but the settings cache could not be written";
    case RunOutcome::kCacheKept:
      return "applied, but the settings cache was kept, since the reply has fewer records";
    case RunOutcome::kCacheUnreadable:
      return "the settings cache cannot be read and was not replaced";
    case RunOutcome::kHeldBack:
      return "held back: this machine went back from such a batch, or could not go back from it";
    case RunOutcome::kPutOff:
      break;
  }
  return "put off: a synchronisation has to come first";
}

RunOutcome PassResult::outcome() const {
  if (!heldBack.empty()) return RunOutcome::kHeldBack;
  if (taskResult != 0) return RunOutcome::kFailed;
  if (!received) return RunOutcome::kSkipped;
  if (failedRecords != 0 || acknowledgedAs == OBGui::kTaskFailed) return RunOutcome::kPartly;
  switch (cache) {
    case CacheFate::kLost:
      return RunOutcome::kCacheLost;
    case CacheFate::kUnreadable:
      return RunOutcome::kCacheUnreadable;
    case CacheFate::kKept:
      return RunOutcome::kCacheKept;
    case CacheFate::kStored:
      break;
  }
  return isAcknowledged() ? RunOutcome::kApplied : RunOutcome::kUnacknowledged;
}

bool PassResult::hasEndedWell() const {
  switch (outcome()) {
    case RunOutcome::kApplied:
    case RunOutcome::kSkipped:
      return true;
    case RunOutcome::kHeldBack:
      return !mayComeAgain;
    case RunOutcome::kPartly:  // which hides what else went wrong
      return cache == CacheFate::kStored && isAcknowledged();
    default:
      return false;
  }
}

}  // namespace host
