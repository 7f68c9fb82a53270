// The note of one batch: on its arrival, before anything is applied, the memory gets what the batch is about
// to change, in its worst state, on disk; afterwards it is corrected by what the registry holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqhost/pass/pass_terms.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/rollback/memory.h"
#include "lqregistry/OBGui.h"
#include "records/host_report.h"

namespace host {

// Seconds within which a server has to be reached after its place, or the proof of who this machine is, was
// changed, unless useWayBackLimit says otherwise.
inline constexpr std::int64_t kWayBackLimit = 600;
inline constexpr std::uint32_t kMinWayBackLimit = 5;
inline constexpr std::uint32_t kMaxWayBackLimit = 7 * 24 * 3600;
void useWayBackLimit(std::int64_t seconds);

enum class BatchKind {
  kWhole,  // what the server wants of this machine, fetched by a pass
  kPart,   // pushed
};

// Made before the session begins that brings the batch: a way to the server that was changed later is not
// proven by it.
class ChangeNote {
 public:
  // `unsettled`: the note that stands, since the settings cache does not hold what the registry does.
  ChangeNote(BatchKind kind, PassTerms terms, const std::optional<UnsettledNote>& unsettled);
  ChangeNote(const ChangeNote&) = delete;
  ChangeNote& operator=(const ChangeNote&) = delete;

  // Why the batch must not be applied; empty when it may.
  std::string arrive(const OBGui::KeyList& keys);
  // Whether one that must not be applied now may be later, without anybody's doing.
  bool mayComeAgain() const { return mayComeAgain_; }

  // After it was applied, or was not.
  void finish();

  // Why what was before could not be kept; no error when it was, or nothing changed.
  const CWmError& error() const { return error_; }
  // Whether the batch changed the way to the server, which a later pass has to prove.
  bool hasChangedWayBack() const { return hasChangedWayBack_; }

 private:
  std::string whyHeldBack(const PlaceList& changes);
  void proveWayBack(ChangeMemory& memory) const;
  ChangeMemory begun() const;
  std::string keep(ChangeMemory memory, bool isNew, const OBGui::KeyList& keys, PlaceList changes);
  void setHeld(ChangeMemory& memory) const;

  BatchKind kind_;
  PassTerms terms_;
  std::optional<Unsettled> cacheBehind_;
  Moment began_ = thisMoment();
  PlaceList changes_;                   // of this batch
  std::optional<ChangeMemory> former_;  // that the new one took the place of
  bool mayComeAgain_ = false;
  bool isAccepted_ = false;
  bool hasChangedWayBack_ = false;
  CWmError error_;
};

// A refresh puts back what a pass wanted, and removes what has expired since: what it leaves is the host's
// own doing, too. Made before it, finished after it.
class RefreshNote {
 public:
  RefreshNote();
  void finish();

 private:
  std::optional<PlaceList> ours_;  // what was as the host had left it; nothing when there is no memory
};

}  // namespace host
