// The pool: one queue of items that may run, and behind each lane whose item waits there or runs, the lane's
// other items. Threads are started on demand up to the bound and leave when idle.
//
// All state is guarded by `mutex`. A thread above the minimum that was idle for long enough moves itself to
// `finished`, from where the next starter or the end joins it. The end drains the queue, because the
// arguments of accepted items belong to the routines that free them.
#include "lqregistry/LqThreadPool.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <list>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

#include "lqregistry/ObDebug.h"

using std::chrono::milliseconds;

struct LqThreadPool::Impl {
  struct Item {
    Routine routine;
    void* argument;
  };
  // A lane exists while one of its items waits in `ready` or runs; `behind` are those that come after it.
  struct Lane {
    std::list<Item> behind;  // most often none, which then takes no memory
    bool runs = false;
  };
  using Lanes = std::unordered_map<std::string, Lane>;  // its elements stay where they are
  struct Ready {
    Item item;
    Lanes::value_type* lane;  // null: of no lane
  };

  std::mutex mutex;
  std::condition_variable workArrived;
  std::condition_variable becameIdle;
  std::deque<Ready> ready;
  Lanes lanes;
  std::size_t pending = 0;  // items accepted that have not ended
  std::size_t running = 0;  // of these, the ones that run
  std::list<std::thread> threads;
  std::list<std::thread> finished;
  std::string name;
  std::chrono::seconds idleTime{0};
  std::size_t itemsPerThread = 1;
  std::size_t maxThreads = 0;
  std::size_t minThreads = 0;
  milliseconds exitWait = kDefaultExitWait;
  std::shared_ptr<const FaultObserver> faultObserver;
  pid_t startedBy = 0;
  bool started = false;
  bool stopping = false;
  bool gathers = false;    // nobody is woken for an item more
  bool gaveUp = false;     // what is pending was waited for in vain, and logged
  bool abandoned = false;  // the pool has ended without its threads, which leave everything as it is

  // A routine of another module must not take the process down with it.
  void runItem(const Ready& next) {
    try {
      next.item.routine(next.item.argument);
    } catch (const std::exception& fault) {
      tellFault(next, fault.what());
    } catch (...) {
      tellFault(next, kNamelessFault);
    }
  }

  void tellFault(const Ready& of, const char* what) {
    ObEvent().Error("LqThreadPool", "A work item ended with an exception; it is dropped");
    std::shared_ptr<const FaultObserver> observer;
    {
      const std::lock_guard lock(mutex);
      if (!abandoned) observer = faultObserver;  // else what it uses may be gone
    }
    if (observer == nullptr) return;
    try {
      (*observer)(of.lane == nullptr ? std::string() : of.lane->first, what);
    } catch (...) {
      ObEvent().Error("LqThreadPool", "The observer of faults ended with an exception itself");
    }
  }

  // With the mutex held; false when the system has no thread to give.
  static bool startThread(const std::shared_ptr<Impl>& pool) {
    for (auto& thread : pool->finished) thread.join();
    pool->finished.clear();
    const std::size_t before = pool->threads.size();
    try {
      const auto self = pool->threads.emplace(pool->threads.end());
      *self = std::thread([pool, self] { pool->run(self); });
      return true;
    } catch (const std::exception&) {
      pool->threads.resize(before);
      return false;
    }
  }

  void run(std::list<std::thread>::iterator self) {
    ::prctl(PR_SET_NAME, name.c_str());  // of which the kernel keeps the beginning
    std::unique_lock lock(mutex);
    while (!abandoned) {
      if (!ready.empty()) {
        runNext(lock);
      } else if (stopping) {
        return;
      } else if (!waitForWork(lock)) {
        finished.splice(finished.end(), threads, self);
        return;
      }
    }
  }

  // False when this thread waited long enough and is not needed.
  bool waitForWork(std::unique_lock<std::mutex>& lock) {
    const auto isWorthWaking = [this] { return stopping || !ready.empty(); };
    if (threads.size() > minThreads)
      return workArrived.wait_for(lock, idleTime, isWorthWaking) || threads.size() <= minThreads;
    workArrived.wait(lock, isWorthWaking);
    return true;
  }

  void runNext(std::unique_lock<std::mutex>& lock) {
    const Ready next = ready.front();
    ready.pop_front();
    ++running;
    if (next.lane != nullptr) next.lane->second.runs = true;
    lock.unlock();
    runItem(next);
    lock.lock();
    if (abandoned) return;
    --running;
    if (next.lane != nullptr) advance(*next.lane);
    if (--pending == 0) becameIdle.notify_all();
  }

  // The lane's item has ended: the next one may run.
  void advance(Lanes::value_type& lane) {
    if (lane.second.behind.empty()) {
      lanes.erase(lanes.find(lane.first));
      return;
    }
    lane.second.runs = false;
    ready.push_back({lane.second.behind.front(), &lane});
    lane.second.behind.pop_front();  // nobody is woken: this thread looks for work next
  }

  // Whether another thread is to join before an item more waits in `ready`. A thread that runs nothing will
  // take one of those that wait.
  bool needsThread() const {
    const std::size_t unoccupied = threads.size() - running;
    return threads.empty() ||
           (threads.size() < maxThreads && ready.size() + 1 >= unoccupied + itemsPerThread);
  }

  // With the mutex held.
  static int accept(const std::shared_ptr<Impl>& pool, const Item& item, const std::string* laneName) {
    if (!pool->started || pool->stopping) return -1;
    Lanes::value_type* lane = nullptr;
    if (laneName != nullptr) {
      const auto [place, isNew] = pool->lanes.try_emplace(*laneName);
      lane = &*place;
      if (!isNew) {
        lane->second.behind.push_back(item);
        ++pool->pending;
        pool->gaveUp = false;
        return 0;
      }
    }
    const auto refuse =
        [&] {  // and leave no lane behind, in which the next one would wait for this one's end
          if (laneName != nullptr) pool->lanes.erase(*laneName);
          return -1;
        };
    if (pool->needsThread() && !startThread(pool) && pool->threads.empty()) return refuse();
    try {
      pool->ready.push_back({item, lane});
    } catch (const std::bad_alloc&) {
      return refuse();
    }
    ++pool->pending;
    pool->gaveUp = false;
    if (!pool->gathers) pool->workArrived.notify_one();
    return 0;
  }

  // With the mutex held; false when something is left, which is logged.
  bool waitUntilDone(std::unique_lock<std::mutex>& lock, milliseconds limit) {
    if (becameIdle.wait_for(lock, limit, [this] { return pending == 0; })) return true;
    if (!gaveUp) logLeft();
    gaveUp = true;
    return false;
  }

  void logLeft() const {
    std::string names;
    std::size_t named = 0;
    for (const auto& [laneName, lane] : lanes) {
      if (named == kMaxNamedLanes) break;
      names += (named++ == 0 ? ": [" : ", [") + laneName + "]";
      if (!lane.behind.empty()) names += " (" + std::to_string(lane.behind.size() + 1) + ")";
    }
    if (named < lanes.size()) names += " and " + std::to_string(lanes.size() - named) + " more";
    ObEvent().Error("LqThreadPool", "Pool %s ends while %zu of its items run and %zu have not begun%s",
                    name.c_str(), running, pending - running, names.c_str());
  }

  void stop() {
    std::unique_lock lock(mutex);
    stopping = true;
    workArrived.notify_all();
    abandoned = !waitUntilDone(lock, gaveUp ? milliseconds::zero() : exitWait);
    while (!threads.empty() || !finished.empty()) {
      auto& from = threads.empty() ? finished : threads;
      std::list<std::thread> leaving;
      leaving.splice(leaving.end(), from, from.begin());
      if (abandoned) {
        leaving.front().detach();
        continue;
      }
      lock.unlock();
      leaving.front().join();
      lock.lock();
    }
  }
};

LqThreadPool::LqThreadPool() : impl_(std::make_shared<Impl>()) {}

LqThreadPool::~LqThreadPool() {
  // The threads of a parent are not in a forked child, and its mutex may be locked for ever there.
  const bool isForked = impl_->startedBy != 0 && impl_->startedBy != getpid();
  if (isForked) {
    static_cast<void>(new (std::nothrow) std::shared_ptr<Impl>(impl_));
  } else {
    impl_->stop();
  }
}

bool LqThreadPool::initThreadPool(const char* name, std::uint64_t idleSeconds, std::uint64_t itemsPerThread,
                                  std::uint32_t maxThreads, std::uint32_t minThreads) {
  if (name == nullptr || itemsPerThread == 0 || maxThreads == 0 || minThreads > maxThreads) return false;
  const std::lock_guard lock(impl_->mutex);
  if (impl_->started || impl_->stopping) return false;
  impl_->name = name;
  impl_->idleTime = std::chrono::seconds(idleSeconds);
  impl_->itemsPerThread = itemsPerThread;
  impl_->maxThreads = maxThreads;
  impl_->minThreads = minThreads;
  impl_->startedBy = getpid();
  while (impl_->threads.size() < minThreads)
    if (!Impl::startThread(impl_)) return false;
  impl_->started = true;
  return true;
}

int LqThreadPool::doWork(Routine routine, void* argument) {
  const std::lock_guard lock(impl_->mutex);
  return Impl::accept(impl_, {routine, argument}, nullptr);
}

int LqThreadPool::doWork(Routine routine, void* argument, const std::string& lane) {
  const std::lock_guard lock(impl_->mutex);
  return Impl::accept(impl_, {routine, argument}, &lane);
}

LqThreadPool::HandOver::HandOver(const LqThreadPool& pool) : pool_(*pool.impl_) {
  const std::lock_guard lock(pool_.mutex);
  pool_.gathers = true;
}

LqThreadPool::HandOver::~HandOver() {
  const std::lock_guard lock(pool_.mutex);
  pool_.gathers = false;
  pool_.workArrived.notify_all();
}

void LqThreadPool::waitIdle() {
  std::unique_lock lock(impl_->mutex);
  impl_->becameIdle.wait(lock, [this] { return impl_->pending == 0; });
}

bool LqThreadPool::drain(milliseconds limit) {
  std::unique_lock lock(impl_->mutex);
  return impl_->waitUntilDone(lock, limit);
}

void LqThreadPool::setExitWait(milliseconds wait) {
  const std::lock_guard lock(impl_->mutex);
  impl_->exitWait = wait;
}

void LqThreadPool::setFaultObserver(FaultObserver observer) {
  auto next = observer ? std::make_shared<const FaultObserver>(std::move(observer)) : nullptr;
  const std::lock_guard lock(impl_->mutex);
  impl_->faultObserver.swap(next);  // the one before is destroyed without the lock
}

bool LqThreadPool::isRunning(const std::string& lane) const {
  const std::lock_guard lock(impl_->mutex);
  const auto found = impl_->lanes.find(lane);
  return found != impl_->lanes.end() && found->second.runs;
}

std::size_t LqThreadPool::threadCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->threads.size();
}

std::size_t LqThreadPool::pendingCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->pending;
}
