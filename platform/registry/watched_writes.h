// How the registry's rooms tell a WriteWatch of this thread's writes: the store knows what a value held, its
// caller how the place is spelled.
#pragma once

#include <string>

#include "platform/registry/outcome.h"
#include "platform/registry/seen_key.h"

namespace lqregistry {

// In the store, as a change is about to be made: what was there, null for nothing.
void noteBefore(const StoredValue* value);
// In the store: what a write, or the commit, failed with.
void noteFault(const Outcome& outcome);
// At the end of a batch of which something was lost.
void tellLostBatch();

// A write of LQPlatformInfo: forgets what was noted, and at its end tells what came of it.
class WatchedWrite {
 public:
  WatchedWrite();
  void end(bool isDone, int code, const std::string& key, const std::string& name, const std::string& reason);
};

}  // namespace lqregistry
