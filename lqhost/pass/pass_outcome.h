// What a pass came to: one outcome, which follows from what its watcher saw on the wire and from what became
// of the cache. The command's report and exit code, the note that `lqhost status` reads and the schedule of
// the resident host all go by it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "lqhost/pass/cache_watch.h"
#include "lqhost/pass/pass_terms.h"
#include "lqregistry/CWmError.h"

namespace host {

// What a run came to. The numbers stand in notes on disk; add at the end.
enum class RunOutcome {
  kDone,             // a refresh, or another task that exchanges nothing
  kApplied,          // applied, in the cache, and recorded by the server
  kPartly,           // not everything could be applied
  kUnacknowledged,   // applied, but the server has not recorded that
  kSkipped,          // synchronisation is switched off, or joining is not finished
  kFailed,           // no batch was received
  kCacheLost,        // applied, but the cache could not be written
  kCacheKept,        // applied, but the cache holds more records than the reply and was kept
  kCacheUnreadable,  // applied, but the cache cannot be read and was not replaced
  kPutOff,           // a refresh that was not run, since a synchronisation has to come first
  kHeldBack,         // a batch came and was not applied, since this machine went back from it, or could not
};
inline constexpr int kLastOutcome = static_cast<int>(RunOutcome::kHeldBack);

// One line for people.
const char* outcomeText(RunOutcome outcome);

struct PassResult {
  std::optional<std::size_t> received;         // how many records the batch had; nothing when none came
  std::optional<std::int64_t> acknowledgedAs;  // the taskStatus sent; nothing when none was
  bool isGoodbyeAnswered = false;              // after that: the server has dealt with it
  std::string refusal;                         // why the server would not record it; empty when it did
  int taskResult = 0;                          // of the product's callback
  std::size_t failedRecords = 0;               // as the report counts them; 0 where none is made
  CacheFate cache = CacheFate::kStored;
  CWmError noteError;         // why the pass could not be noted before it began
  std::string heldBack;       // why the batch that came was not applied; empty when it was, or none came
  std::string wentBack;       // why the machine went back to what was before, after it; empty when it did not
  bool mayComeAgain = false;  // such a batch may be applied later, without anybody's doing
  CWmError memoryError;       // why it cannot be gone back from this batch
  bool isCacheDropped = false;  // before it began
  PassTerms terms;              // under which it fetched its batch
  CWmError dropError;           // why that was wanted and could not be done; there was no pass then

  // Sent, dealt with, and not refused.
  bool isAcknowledged() const { return acknowledgedAs && isGoodbyeAnswered && refusal.empty(); }
  // Where several hold, what leaves the machine furthest from what the server wants comes first.
  RunOutcome outcome() const;
  // Whether the schedule can leave it at that for a whole period.
  bool hasEndedWell() const;
};

}  // namespace host
