// LqThreadPool: a named pool of worker threads with a bounded queue.
//
// Constructed without threads; initThreadPool starts it. Work items run in the order they were queued,
// several at a time. The destructor stops it in order: nothing new is accepted, everything accepted is run,
// the threads are joined. Any thread may queue work. A real platform library provides initThreadPool and
// doWork with these arguments; what its four numbers bound is for it to say, here they bound what is written
// below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "lqregistry/LqExport.h"

class LQ_EXPORT LqThreadPool {
 public:
  using Routine = void* (*)(void*);

  LqThreadPool();
  ~LqThreadPool();
  LqThreadPool(const LqThreadPool&) = delete;
  LqThreadPool& operator=(const LqThreadPool&) = delete;

  // Starts the pool; true on success, false when it is already started, a number makes no sense or no thread
  // can be had.
  //   name         carried by every thread (the kernel keeps the first 15 characters)
  //   maxQueued    most items that may wait for a thread; beyond it doWork refuses
  //   idleSeconds  a thread above minThreads ends after it had nothing to do for this long
  //   maxThreads   most threads at any time
  //   minThreads   threads that are started at once and stay
  bool initThreadPool(const char* name, std::uint64_t maxQueued, std::uint64_t idleSeconds,
                      std::uint32_t maxThreads, std::uint32_t minThreads);

  // Queues routine(argument). 0 when it was accepted: it will run exactly once, and its result is dropped.
  // -1 when it was not: the pool is not started, is stopping, or maxQueued items wait already.
  int doWork(Routine routine, void* argument);

  // Blocks until nothing waits and nothing runs. Not to be called from a work item.
  void waitIdle();

  // Items that wait for a thread or run now.
  std::size_t pendingCount() const;

  // Threads alive now, busy or idle.
  std::size_t threadCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
