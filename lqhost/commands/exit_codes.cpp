#include "lqhost/commands/exit_codes.h"

#include <algorithm>
#include <array>

namespace host {

namespace {

// What is wrong, the worst first: what the cache lacks explains why values differ from it.
constexpr std::array kWorstFirst = {kExitCacheLost, kExitCacheUnreadable, kExitCacheKept, kExitDrift,
                                    kExitHeldBack,  kExitUnacknowledged,  kExitFailed};

}  // namespace

int worseOf(int one, int other) {
  const auto rank = [](int exitCode) { return std::find(kWorstFirst.begin(), kWorstFirst.end(), exitCode); };
  return rank(one) <= rank(other) ? one : other;
}

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
    case RunOutcome::kHeldBack:
      return kExitHeldBack;
    case RunOutcome::kFailed:
    case RunOutcome::kPutOff:
      break;
  }
  return kExitFailed;
}

}  // namespace host
