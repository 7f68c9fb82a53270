// The thread of the resident host that sees to it that changes which have to be confirmed, or proven by
// reaching the server, are gone back from in time, and that a going back which failed is tried again.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "lqhost/service/passes.h"

namespace host {

class Keeper {
 public:
  // `passes` must outlive it.
  explicit Keeper(Passes& passes) : passes_(passes) {}
  ~Keeper();
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;

  void start();
  // Nothing is begun any more; the destructor waits for what is under way.
  void requestStop();

 private:
  void keep();

  Passes& passes_;
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool isStopping_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace host
