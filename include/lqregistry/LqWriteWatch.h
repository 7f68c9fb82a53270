// lqregistry::WriteWatch: what the writes of one thread really change in the registry, and which of them
// fail, and why.
//
// For hosts that report a pass: the product tells whether a batch could be applied as a whole, and its log
// the rest. A write of what is there already is no event, so a pass that changes nothing costs its watcher
// nothing. A real platform library provides the same from wherever it compares old and new value; one that
// cannot leaves reports without reasons and without what was found changed on the machine.
//
//   lqregistry::WriteWatch watch([&](const lqregistry::WriteEvent& event) { ... });
//
// Opened and closed on one thread, whose calls of LQPlatformInfo it sees; of several, the last opened one.
// The function runs inside the write: it must not use the registry, and must not throw. What a batch changed
// counts only when the batch is committed: one that was not is an event of its own.
#pragma once

#include <functional>
#include <string_view>

#include "lqregistry/LqExport.h"

namespace lqregistry {

enum class WriteFault {
  kNone,
  kBadName,   // too long, empty, with a NUL byte, or a key that is not removed
  kReadOnly,  // the file may only be read
  kFull,      // no room for it
  kLocked,    // another process kept the write lock for too long
  kDamaged,   // the file is damaged, or no registry
  kOther,
};

struct WriteEvent {
  // The place as the caller spelled it; `name` is empty for a key, both are for a batch that was lost.
  std::string_view key;
  std::string_view name;
  // A change has no fault; what the value held before is valid during the call.
  bool wasThere = false;
  std::string_view before;
  // A failure has one, and the reason in words, without the place.
  WriteFault fault = WriteFault::kNone;
  std::string_view reason;
};

class LQ_EXPORT WriteWatch {
 public:
  using Handler = std::function<void(const WriteEvent&)>;

  explicit WriteWatch(Handler handler);
  ~WriteWatch();
  WriteWatch(const WriteWatch&) = delete;
  WriteWatch& operator=(const WriteWatch&) = delete;

 private:
  friend void tellWatch(const WriteEvent& event);

  Handler handler_;
  WriteWatch* outer_;
};

}  // namespace lqregistry
