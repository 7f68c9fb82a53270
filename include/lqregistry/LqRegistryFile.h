// The process's view of the machine's registry file: which file it is, and write batches.
//
// The registry is one SQLite file per machine. This process holds one connection to it, opened at the first
// use and shared by every LQPlatformInfo of every thread; a write is seen at once by every thread. A real
// platform library keeps its own store and needs nothing of this header except the write batch, which a store
// without transactions may implement with a commit() that always succeeds.
//
// A file that cannot be used makes calls fail with LQPlatformInfo's kRegUnavailable and is logged once; the
// next call tries again. It is never replaced or emptied. When somebody puts another file in its place, the
// process must be restarted.
#pragma once

#include <string>

#include "lqregistry/LqExport.h"

namespace lqregistry {

// Where the registry lies when neither UseFile nor the environment variable VELMOR_REGISTRY says otherwise.
inline constexpr const char* kDefaultFile = "/var/lib/velmor/registry.db";

// Longest key path and longest value name, in bytes; longer ones are refused with LQPlatformInfo's bad-name
// error. The bounds keep a hostile batch from filling the index with megabytes of name.
inline constexpr int kMaxPathBytes = 4096;
inline constexpr int kMaxNameBytes = 1024;

// Names the registry file of this process and closes the one in use. Not while other threads use the
// registry.
LQ_EXPORT void UseFile(const std::string& path);

// The path in force.
LQ_EXPORT std::string File();

// A scope whose writes become one transaction: they reach the disk together, or not at all.
//
// While it lives, other threads and processes that want to write wait; readers of this process see the writes
// at once. Batches of one thread nest: the outermost one commits. Leaving the scope without commit() commits
// too, but nobody learns of a failure then.
class LQ_EXPORT WriteBatch {
 public:
  WriteBatch();
  ~WriteBatch();
  WriteBatch(const WriteBatch&) = delete;
  WriteBatch& operator=(const WriteBatch&) = delete;

  // Puts what was written so far on disk and goes on with a new transaction. False when that failed, or when
  // an earlier write of this batch was already lost (the disk was full, say); those writes are undone.
  bool flush();

  // Puts everything on disk and ends the batch. The result covers the whole batch: false when any of its
  // writes that were reported as successful did not survive.
  bool commit();

  // Ends the batch and undoes what was written since its last flush. Within another batch, that one's
  // commit() gives false then.
  void abandon();

 private:
  bool open_ = true;
};

}  // namespace lqregistry
