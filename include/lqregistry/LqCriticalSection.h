// LqCriticalSection and its scoped lock: a mutex that its owner may take again.
//
// A real platform library provides a lock that is re-entrant for its owner; code that takes a lock in a
// constructor which the lock's holder runs relies on that.
#pragma once

#include <mutex>

class LqCriticalSection {
 public:
  LqCriticalSection() = default;
  LqCriticalSection(const LqCriticalSection&) = delete;
  LqCriticalSection& operator=(const LqCriticalSection&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds the section from construction to the end of the scope.
using LqCriticalSectionLock = std::lock_guard<LqCriticalSection>;
