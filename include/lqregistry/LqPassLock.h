// LqPassLock: one download or refresh at a time, among all threads and processes that use one registry file
// for one instance.
//
// Both tasks read the cache of settings, apply a batch and write the cache; two of them at once would leave a
// mixture of two batches. Whoever is about to begin such a pass takes the lock for as long as it lasts:
//
//   LqPassLock lock("refresh");
//   if (!lock.isHeld()) { log(lock.reason()); return; }
//
// The lock is a file beside the registry, <registry file>.<current instance>.pass, mode 0600, in which the
// holder is noted; the system releases it when the holder's process dies. Where no file can be made because
// the place is read-only, it excludes only the threads of this process. What the server pushes does not take
// it: a push does not touch the cache, and the registry's own write lock keeps it whole.
//
// A real platform library has no part in this.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "lqregistry/LqExport.h"

class LQ_EXPORT LqPassLock {
 public:
  // How long the constructor waits for another holder.
  static constexpr std::chrono::milliseconds kDefaultWait{60'000};

  // Takes the lock, or waits and gives up. A thread that holds it already does not wait for itself: it is
  // refused at once. `task` names the work for those who wait meanwhile. To be destroyed by the same thread.
  explicit LqPassLock(const std::string& task);
  ~LqPassLock();
  LqPassLock(const LqPassLock&) = delete;
  LqPassLock& operator=(const LqPassLock&) = delete;

  bool isHeld() const;
  // Why it is not held: the file, and its holder's process id, task and start, or the system's error; for a
  // log line. Empty when it is held.
  const std::string& reason() const { return reason_; }

  // Sets the wait for this process, from the next lock on. Any thread.
  static void useWait(std::chrono::milliseconds wait);

 private:
  struct Hold;
  std::unique_ptr<Hold> hold_;
  std::string reason_;
};
