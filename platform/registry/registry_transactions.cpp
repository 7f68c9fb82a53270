// How the store's writes become transactions, alone or in batches, and what happens when one fails.
//
// A transaction begins with the first write that has something to change, so a batch without changes touches
// nothing on disk. It takes the file's write lock at once: waiting for other processes happens here, outside
// the connection lock, and never in the middle of a transaction.
#include <thread>

#include "platform/registry/registry_store.h"

namespace lqregistry {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How long a write waits for another process's transaction, and how often it looks.
constexpr milliseconds kWriteLockWait{5000};
constexpr milliseconds kWriteLockPoll{10};

}  // namespace

RegistryStore::RegistryStore() : wait_(kWriteLockWait) {}

Outcome RegistryStore::change(const Change& change) {
  const std::lock_guard writer(writerLock_);
  Outcome outcome = attempt(change);
  if (outcome.code == kRegUnavailable) {
    noteLock(outcome);
    const std::lock_guard connection(connectionLock_);
    reportFailure(Access::kWriting, outcome);
  }
  return outcome;
}

Outcome RegistryStore::attempt(const Change& change) {
  bool needed = false;
  Outcome outcome = lookFor(change, needed);
  if (!outcome.ok() || !needed) return outcome;
  if (!inTransaction()) {
    outcome = beginTransaction();
    if (!outcome.ok()) return outcome;
    // Until now another process could have changed what was seen.
    needed = false;
    outcome = lookFor(change, needed);
  }
  if (outcome.ok() && needed) outcome = act(change);
  if (batchDepth_ > 0) return outcome;
  if (!outcome.ok() || !needed) {
    rollBack();
    return outcome;
  }
  return commitTransaction();
}

Outcome RegistryStore::lookFor(const Change& change, bool& needed) {
  const std::lock_guard connection(connectionLock_);
  Outcome outcome = openFor(Access::kReading);
  if (outcome.ok()) return change.look(needed);
  if (outcome.code == kRegKeyMissing && change.createsFile) {
    needed = true;
    return {};
  }
  return outcome;
}

Outcome RegistryStore::act(const Change& change) {
  const std::lock_guard connection(connectionLock_);
  const int result = change.act();
  if (result == SQLITE_OK || result == SQLITE_DONE) {
    pendingWrites_ = true;
    return {};
  }
  Outcome outcome = connection_.failure(result);
  // Some errors, a full disk among them, make SQLite give up the whole transaction.
  if (!connection_.inTransaction()) {
    lostWrites_ = lostWrites_ || pendingWrites_;
    pendingWrites_ = false;
  }
  return outcome;
}

Outcome RegistryStore::beginTransaction() {
  const auto deadline = steady_clock::now() + wait_;
  for (;;) {
    Outcome outcome = tryBegin();
    if (!outcome.locked || steady_clock::now() >= deadline) return outcome;
    std::this_thread::sleep_for(kWriteLockPoll);
  }
}

Outcome RegistryStore::tryBegin() {
  const std::lock_guard connection(connectionLock_);
  Outcome outcome = openFor(Access::kWriting);
  if (!outcome.ok()) return outcome;
  connection_.setWait(milliseconds::zero());
  const int result = connection_.run(Sql::kBegin);
  if (result != SQLITE_OK) outcome = connection_.failure(result);
  connection_.setWait(wait_);
  return outcome;
}

Outcome RegistryStore::commitTransaction() {
  const std::lock_guard connection(connectionLock_);
  const int result = connection_.run(Sql::kCommit);
  if (result == SQLITE_OK) {
    if (pendingWrites_) reportSuccess(Access::kWriting);
    pendingWrites_ = false;
    return {};
  }
  Outcome outcome = connection_.failure(result);
  if (connection_.inTransaction()) connection_.run(Sql::kRollback);
  lostWrites_ = lostWrites_ || pendingWrites_;
  pendingWrites_ = false;
  return outcome;
}

void RegistryStore::rollBack() {
  const std::lock_guard connection(connectionLock_);
  if (connection_.inTransaction()) connection_.run(Sql::kRollback);
  pendingWrites_ = false;
}

bool RegistryStore::inTransaction() {
  const std::lock_guard connection(connectionLock_);
  return connection_.inTransaction();
}

void RegistryStore::noteLock(const Outcome& outcome) {
  // A batch of thousands of records waits once for a process that does not let go, not once for each record.
  if (outcome.locked && batchDepth_ > 0) setWait(milliseconds::zero());
}

void RegistryStore::setWait(milliseconds wait) {
  const std::lock_guard connection(connectionLock_);
  wait_ = wait;
  if (connection_.isOpen()) connection_.setWait(wait);
}

void RegistryStore::beginBatch() {
  writerLock_.lock();
  if (batchDepth_++ == 0) lostWrites_ = false;
}

bool RegistryStore::flushBatch() {
  if (inTransaction()) {
    const Outcome outcome = commitTransaction();
    if (!outcome.ok()) {
      const std::lock_guard connection(connectionLock_);
      reportFailure(Access::kWriting, outcome);
    }
  }
  return !lostWrites_;
}

bool RegistryStore::endBatch() {
  bool survived = !lostWrites_;
  if (batchDepth_ == 1) {
    survived = flushBatch();
    setWait(kWriteLockWait);
  }
  --batchDepth_;
  writerLock_.unlock();
  return survived;
}

void RegistryStore::abandonBatch() {
  rollBack();
  lostWrites_ = true;
  if (batchDepth_ == 1) setWait(kWriteLockWait);
  --batchDepth_;
  writerLock_.unlock();
}

}  // namespace lqregistry
