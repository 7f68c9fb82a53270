// LqThreadPool: a named pool of a few worker threads.
//
// Constructed without threads; initThreadPool starts it. No work item is refused because many wait: whoever
// hands over more than can be run in time bounds that itself, with pendingCount(). Items run in the order
// they were queued, several at a time; items of one lane run one after the other. Any thread may queue work.
// A real platform library provides initThreadPool and doWork with these arguments, a HandOver that may do
// nothing, an observer that may hear nothing and an isRunning that may always be false; what its four numbers
// mean is for it to say, here they mean what is written below.
//
// The destructor ends the pool in order: nothing new is accepted, everything accepted is run, the threads are
// joined. It waits for that no longer than the exit wait; then it logs what has not run and leaves the
// threads that still run an item to themselves, so that a process ends in spite of an item that does not.
// What such an item would use must not be torn down before it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "lqregistry/LqExport.h"

class LQ_EXPORT LqThreadPool {
  struct Impl;

 public:
  using Routine = void* (*)(void*);

  // How long the destructor waits for the items that were accepted.
  static constexpr std::chrono::milliseconds kDefaultExitWait{10'000};
  // The most lanes that a log line names whose items have not run.
  static constexpr std::size_t kMaxNamedLanes = 20;
  // What an observer hears of an exception that is no std::exception.
  static constexpr const char* kNamelessFault = "an exception that does not say what it is";

  // Hears of an item that threw: its lane, empty when it has none, and what the exception says.
  using FaultObserver = std::function<void(const std::string& lane, const char* what)>;

  LqThreadPool();
  ~LqThreadPool();
  LqThreadPool(const LqThreadPool&) = delete;
  LqThreadPool& operator=(const LqThreadPool&) = delete;

  // Starts the pool; true on success, false when it is already started, a number makes no sense or no thread
  // can be had. A pool that could not be started may be started again.
  //   name            carried by every thread (the kernel keeps the first 15 characters)
  //   idleSeconds     how long a thread above minThreads waits for work before it ends
  //   itemsPerThread  this many waiting items let another thread join; at least 1
  //   maxThreads      most threads at any time; at least 1
  //   minThreads      fewest threads: started at once, and they stay
  bool initThreadPool(const char* name, std::uint64_t idleSeconds, std::uint64_t itemsPerThread,
                      std::uint32_t maxThreads, std::uint32_t minThreads);

  // Queues routine(argument). 0 when it was accepted: it will run exactly once, and its result is dropped; an
  // exception that it throws is logged and told to the observer. -1 when it was not, and the argument is
  // still the caller's: the pool is not started, or is ending, or has no thread and gets none.
  int doWork(Routine routine, void* argument);
  // The same; items that name the same lane run one at a time, in the order they were queued.
  int doWork(Routine routine, void* argument, const std::string& lane);

  // For many items that are handed over one after the other: while one lives, threads that sleep stay asleep,
  // and are woken when it ends. Waking a thread for each item costs more than a short item does. Items are
  // accepted as ever, and a thread that is awake may run them. One at a time; it must not outlive the pool.
  class LQ_EXPORT HandOver {
   public:
    explicit HandOver(const LqThreadPool& pool);
    ~HandOver();
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

   private:
    Impl& pool_;
  };

  // Blocks until nothing waits and nothing runs. Not to be called from a work item.
  void waitIdle();

  // The same for a process that is about to end, at most for `limit`. False when something has not run by
  // then, which is logged as an error with the lanes' names; unless more is queued, the destructor does not
  // wait for it a second time.
  bool drain(std::chrono::milliseconds limit);

  // How long the destructor waits instead of kDefaultExitWait.
  void setExitWait(std::chrono::milliseconds wait);

  // Calls `observer` for each item that throws, on that item's thread, while its lane still waits for it; an
  // empty function removes it. A call that has begun may still run when it is replaced. What it throws itself
  // is logged; it is not called any more once the pool has been left by its destructor.
  void setFaultObserver(FaultObserver observer);

  // Whether an item of this lane runs now, rather than waits for a thread.
  bool isRunning(const std::string& lane) const;

  // Items that wait for a thread or run now.
  std::size_t pendingCount() const;

  // Threads alive now, busy or idle.
  std::size_t threadCount() const;

 private:
  std::shared_ptr<Impl> impl_;  // shared with the threads, which may have to be left behind
};
