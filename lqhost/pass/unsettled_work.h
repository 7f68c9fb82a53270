// The note that registry and settings cache may not belong together: somebody is changing the registry, or
// has changed it, and the cache does not hold that yet. A refresh would put the older values of the cache
// back, so while the note stands there is a synchronisation and no refresh.
//
//   UnsettledWork work(Unsettled::kPass);   // on disk before anything is changed
//   ... the pass ...
//   work.settle();                          // the cache is stored: the note goes
//
// The note is a small file in the base directory. Whoever begins writes a note of its own over the one that
// stands, and at the end takes away, or puts back, only its own: of two that overlap, in one process or in
// two, the last to begin decides, and an end without a word (a kill) leaves the note. Every doubt leaves it
// standing, which costs one synchronisation.
//
// Where the note cannot be written (full disk, read-only base directory) the work is done all the same,
// because a machine without its settings is worse off than one that may get an older value back; the note is
// kept in memory then, and error() tells.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqregistry/CWmError.h"

namespace host {

enum class Unsettled {
  kPass,             // a synchronisation is under way, or was killed
  kPush,             // the server pushed a batch, and no synchronisation has followed
  kCacheLost,        // the cache could not be written
  kCacheKept,        // the cache was kept, because the reply was shorter
  kCacheUnreadable,  // the cache cannot be read, and was not replaced
  kCacheDropped,     // the cache was dropped, and no synchronisation has followed
};

struct UnsettledNote {
  Unsettled why = Unsettled::kPass;
  std::int64_t since = 0;  // seconds since the epoch
  std::string token;       // tells one note from another
};

// The note that stands for the instance in focus; a file that cannot be understood counts as one.
std::optional<UnsettledNote> standingNote();

// Whether the process that wrote the note is still at it; otherwise it was killed.
bool isUnderWay(const UnsettledNote& note);

// What the note says, for people, in one line.
std::string unsettledText(const UnsettledNote& note);

class UnsettledWork {
 public:
  explicit UnsettledWork(Unsettled why);
  UnsettledWork(const UnsettledWork&) = delete;
  UnsettledWork& operator=(const UnsettledWork&) = delete;

  // Why the note is not on disk; no error when it is.
  const CWmError& error() const { return error_; }

  // Whether another note stood: registry and cache did not belong together.
  bool hasFoundNote() const { return before_.has_value(); }

  // The cache holds what the registry does: the note goes.
  void settle();
  // Nothing was changed: as it was before.
  void restore();
  // The work has ended, and the note stays, for this reason.
  void leave(Unsettled why);

 private:
  void replaceOwn(const std::optional<UnsettledNote>& by);

  UnsettledNote own_;
  std::optional<UnsettledNote> before_;
  CWmError error_;
};

}  // namespace host
