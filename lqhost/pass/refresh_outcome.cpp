#include "lqhost/pass/refresh_outcome.h"

#include <limits>

namespace host {

RunOutcome RefreshResult::outcome() const {
  const bool isCacheUsed = run == RunOutcome::kDone || run == RunOutcome::kCacheLost;
  return isCacheUsed && failedRecords != 0 ? RunOutcome::kPartly : run;
}

RunOutcome judgeRefresh(int taskResult, const CacheWatch& cache) {
  if (taskResult != 0) return RunOutcome::kFailed;
  if (!cache.wasThere()) return RunOutcome::kDone;
  switch (cache.fate(std::numeric_limits<std::size_t>::max())) {
    case CacheFate::kStored:
      return RunOutcome::kDone;
    case CacheFate::kUnreadable:
      return RunOutcome::kCacheUnreadable;
    case CacheFate::kKept:
    case CacheFate::kLost:
      break;
  }
  // With a cache there, it did not get to work; the log tells why.
  return CacheWatch().wasThere() ? RunOutcome::kFailed : RunOutcome::kCacheLost;
}

RunOutcome nothingToReapply() {
  return CacheWatch().wasThere() ? RunOutcome::kCacheUnreadable : RunOutcome::kFailed;
}

}  // namespace host
