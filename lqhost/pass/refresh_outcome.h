// What a refresh came to: the note that `lqhost status` reads, the schedule of the resident host and the
// command's exit code all go by it.
#pragma once

#include <cstddef>
#include <optional>

#include "lqhost/pass/cache_watch.h"
#include "lqhost/pass/pass_outcome.h"
#include "lqhost/pass/registry_writes.h"
#include "lqhost/pass/unsettled_work.h"

namespace host {

struct RefreshResult {
  RunOutcome run = RunOutcome::kDone;   // what the run came to, as it is noted
  std::optional<UnsettledNote> reason;  // why it was put off
  std::size_t failedRecords = 0;        // as the report counts them; 0 where none is made
  RegistryWrites writes{};              // what it corrected, and could not

  // Where several hold, what leaves the machine furthest from what the server wants comes first.
  RunOutcome outcome() const;
};

// A refresh that ran with this result, and of which `cache` has seen the beginning. It has rewritten the
// cache. A write that failed leaves it empty: there is nothing to reapply any more, until a synchronisation
// stores another.
RunOutcome judgeRefresh(int taskResult, const CacheWatch& cache);

// A refresh that was not run, since there is no cache that can be read.
RunOutcome nothingToReapply();

}  // namespace host
