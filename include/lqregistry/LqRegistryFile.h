// The process's view of the machine's registry file: which file, whether it is sound, and write batches.
//
// The registry is one SQLite file per machine. This process holds two connections to it, opened at the first
// use and shared by every LQPlatformInfo of every thread: one that writes, and one through which every thread
// without a batch of its own reads what is committed. A real platform library keeps its own store and needs
// nothing of this header except the write batch, which a store without transactions may implement with a
// commit() that always succeeds, and the check, which may always find the store sound.
//
// A file that cannot be used makes calls fail with LQPlatformInfo's kRegUnavailable and is logged once; the
// next call tries again. It is never replaced or emptied. When somebody puts another file in its place, the
// process must be restarted. A process that is forked while the file is open cannot use it, and is told so:
// the connections are its parent's. A file that lies where nothing can be written is read all the same,
// through a private copy if need be.
#pragma once

#include <chrono>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"

namespace lqregistry {

// Where the registry lies when neither UseFile nor the environment variable VELMOR_REGISTRY says otherwise.
inline constexpr const char* kDefaultFile = "/var/lib/velmor/registry.db";

// Longest key path and longest value name, in bytes; longer ones are refused with LQPlatformInfo's bad-name
// error. The bounds keep a hostile batch from filling the index with megabytes of name.
inline constexpr int kMaxPathBytes = 4096;
inline constexpr int kMaxNameBytes = 1024;

// Names this process's registry file and closes the one in use; not while other threads use either.
LQ_EXPORT void UseFile(const std::string& path);

// The path in force.
LQ_EXPORT std::string File();

// How long a write waits for another process's transaction before it fails with kRegUnavailable. Longer than
// the largest batch takes to apply, so that a pass makes others wait and not fail. For another thread of this
// process a write waits without a limit.
inline constexpr std::chrono::milliseconds kDefaultWriteWait{60'000};

// Sets that wait for this process, from the next write on. Any thread.
LQ_EXPORT void UseWriteWait(std::chrono::milliseconds wait);

// Whether the registry file is sound: its trees agree with each other, and every key with its path. Reads the
// whole file, so it is meant for a start or a person who asks, not for each pass. A registry that does not
// exist yet is sound. An error, which names the file, when it is damaged or cannot be read. Values carry no
// checksum: a byte that changed inside one is not noticed. Any thread; nobody waits for it.
LQ_EXPORT CWmError Check();

// Whether this thread has a write batch open.
LQ_EXPORT bool IsInBatch();

// A scope whose writes become one transaction: they reach the disk together, or not at all.
//
// While it lives, other threads and processes that want to write wait; whoever reads from another thread or
// process sees what was there before. The thread of the batch sees what it has written. Batches of one thread
// nest: the outermost one commits. Leaving the scope without commit() commits too, but nobody learns of a
// failure then; an exception that leaves it undoes the batch. A batch belongs to the thread that made it.
//
// Once a write of it is lost, which commit() and the writes that fail then report, later writes are still
// tried, in a transaction of their own: whoever wants all or nothing abandons the batch at the first failure.
//
//   lqregistry::WriteBatch batch;
//   batch.lock();                      // only if what is written depends on what is read
//   info.getNumber("A", "nCOUNT", count);
//   info.setNumber("A", "nCOUNT", count + 1);
//   if (!batch.commit()) ...           // the registry is as it was
class LQ_EXPORT WriteBatch {
 public:
  WriteBatch();
  ~WriteBatch();
  WriteBatch(const WriteBatch&) = delete;
  WriteBatch& operator=(const WriteBatch&) = delete;

  // Takes the registry's write lock now instead of with the first change, so that nothing which this thread
  // reads from here on is changed by others before the batch ends; a registry that does not exist is created.
  // One that may only be read is read as it stands at this moment. When another process keeps the lock for
  // longer than the wait, reads show what is committed, and every write tries again without waiting.
  void lock();

  // Puts everything on disk and ends the batch. The result covers the whole batch: false when any of its
  // writes that were reported as successful did not survive (the disk was full, say).
  bool commit();

  // Ends the batch and undoes what was written. Within another batch, that one's commit() then returns false.
  void abandon();

 private:
  bool open_ = true;
  int exceptions_;  // under way when the batch was made
};

// A scope in which this thread reads the registry as it stood when the scope began, and at a fraction of the
// cost of one read after the other. For walks and reports: other threads of this process that want to write
// wait until it ends. Within a write batch it adds nothing, and a write of this thread within it is done, and
// ends the snapshot.
class LQ_EXPORT ReadSnapshot {
 public:
  ReadSnapshot();
  ~ReadSnapshot();
  ReadSnapshot(const ReadSnapshot&) = delete;
  ReadSnapshot& operator=(const ReadSnapshot&) = delete;
};

}  // namespace lqregistry
