// The pool: one queue, one mutex, threads that are started on demand up to the bound and leave when idle.
//
// All state is guarded by `mutex`. A thread above the minimum that was idle for long enough moves itself to
// `finished`, from where the next starter or the stop joins it. Stopping drains the queue, because the
// arguments of accepted items belong to the routines that free them.
#include "lqregistry/LqThreadPool.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "lqregistry/ObDebug.h"

namespace {
// The kernel keeps this many characters of a thread's name.
constexpr std::size_t kThreadNameLength = 15;
}  // namespace

struct LqThreadPool::Impl {
  struct Item {
    Routine routine;
    void* argument;
  };

  std::mutex mutex;
  std::condition_variable workArrived;
  std::condition_variable becameIdle;
  std::deque<Item> queue;
  std::list<std::thread> threads;
  std::list<std::thread> finished;
  std::string name;
  std::uint64_t maxQueued = 0;
  std::chrono::seconds idleTime{0};
  std::size_t maxThreads = 0;
  std::size_t minThreads = 0;
  std::size_t waiting = 0;  // threads that wait for an item
  std::size_t running = 0;  // items that run
  bool started = false;
  bool stopping = false;

  // A routine of another module must not take the process down with it.
  static void runItem(const Item& item) {
    try {
      item.routine(item.argument);
    } catch (...) {
      ObEvent().Error("LqThreadPool", "A work item ended with an exception; it is dropped");
    }
  }

  // With the mutex held; false when the system has no thread to give.
  bool startThread() {
    for (auto& thread : finished) thread.join();
    finished.clear();
    const std::size_t before = threads.size();
    try {
      const auto self = threads.emplace(threads.end());
      *self = std::thread([this, self] { run(self); });
      return true;
    } catch (const std::exception&) {
      threads.resize(before);
      return false;
    }
  }

  void run(std::list<std::thread>::iterator self) {
    pthread_setname_np(pthread_self(), name.substr(0, kThreadNameLength).c_str());
    std::unique_lock lock(mutex);
    for (;;) {
      if (queue.empty()) {
        if (stopping) return;
        ++waiting;
        const auto worthWaking = [this] { return stopping || !queue.empty(); };
        if (threads.size() <= minThreads) {
          workArrived.wait(lock, worthWaking);
        } else if (!workArrived.wait_for(lock, idleTime, worthWaking) && threads.size() > minThreads) {
          --waiting;
          finished.splice(finished.end(), threads, self);
          return;
        }
        --waiting;
        continue;
      }
      const Item item = queue.front();
      queue.pop_front();
      ++running;
      lock.unlock();
      runItem(item);
      lock.lock();
      --running;
      if (running == 0 && queue.empty()) becameIdle.notify_all();
    }
  }

  void stop() {
    std::unique_lock lock(mutex);
    stopping = true;
    workArrived.notify_all();
    while (!threads.empty() || !finished.empty()) {
      auto& from = threads.empty() ? finished : threads;
      std::list<std::thread> leaving;
      leaving.splice(leaving.end(), from, from.begin());
      lock.unlock();
      leaving.front().join();
      lock.lock();
    }
  }
};

LqThreadPool::LqThreadPool() : impl_(std::make_unique<Impl>()) {}

LqThreadPool::~LqThreadPool() {
  impl_->stop();
}

bool LqThreadPool::initThreadPool(const char* name, std::uint64_t maxQueued, std::uint64_t idleSeconds,
                                  std::uint32_t maxThreads, std::uint32_t minThreads) {
  if (name == nullptr || maxQueued == 0 || maxThreads == 0 || minThreads > maxThreads) return false;
  const std::lock_guard lock(impl_->mutex);
  if (impl_->started || impl_->stopping) return false;
  impl_->name = name;
  impl_->maxQueued = maxQueued;
  impl_->idleTime = std::chrono::seconds(idleSeconds);
  impl_->maxThreads = maxThreads;
  impl_->minThreads = minThreads;
  while (impl_->threads.size() < minThreads)
    if (!impl_->startThread()) return false;
  impl_->started = true;
  return true;
}

int LqThreadPool::doWork(Routine routine, void* argument) {
  const std::lock_guard lock(impl_->mutex);
  if (!impl_->started || impl_->stopping || impl_->queue.size() >= impl_->maxQueued) return -1;
  // A waiting thread may already be spoken for by an item that is still in the queue.
  if (impl_->queue.size() >= impl_->waiting && impl_->threads.size() < impl_->maxThreads &&
      !impl_->startThread() && impl_->threads.empty())
    return -1;
  impl_->queue.push_back({routine, argument});
  impl_->workArrived.notify_one();
  return 0;
}

void LqThreadPool::waitIdle() {
  std::unique_lock lock(impl_->mutex);
  impl_->becameIdle.wait(lock, [this] { return impl_->running == 0 && impl_->queue.empty(); });
}

std::size_t LqThreadPool::threadCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->threads.size();
}

std::size_t LqThreadPool::pendingCount() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->queue.size() + impl_->running;
}
