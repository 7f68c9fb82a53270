// How the store's writes become transactions, alone or in batches, and what happens when one fails.
//
// A transaction begins with the first write that has something to change, so that writing what is there
// already touches nothing on disk; or, in a batch that locks at once, before the first comparison. It takes
// the file's write lock as it begins: waiting for other processes happens here, never in the middle of a
// transaction. All of this runs with the writer lock held.
#include <thread>

#include "platform/registry/registry_store.h"
#include "platform/registry/watched_writes.h"

namespace lqregistry {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How often a write that waits for another process's transaction looks.
constexpr milliseconds kWriteLockPoll{10};

}  // namespace

Outcome RegistryStore::change(const Change& change) {
  if (isInherited_) return inherited();
  const std::lock_guard writer(writerLock_);
  holdStill();
  Outcome outcome;
  try {
    outcome = attempt(change);
  } catch (...) {
    // Out of memory: the file's write lock must not outlast a call that nobody can finish.
    if (batchDepth_ == 0) rollBack();
    throw;
  }
  if (outcome.code == kRegUnavailable) {
    noteLock(outcome);
    noteFault(outcome);
    reportFailure(Access::kWriting, outcome);
  }
  return outcome;
}

Outcome RegistryStore::attempt(const Change& change) {
  bool needed = false;
  Outcome outcome = lookFor(change, needed);
  noteLoss();
  if (!outcome.ok() || !needed) return outcome;
  if (!isWriting()) {
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
  Outcome outcome = openFor(writer_, Access::kReading);
  if (outcome.ok()) return change.look(needed);
  if (outcome.code == kRegKeyMissing && change.createsFile) {
    needed = true;
    return {};
  }
  return outcome;
}

Outcome RegistryStore::act(const Change& change) {
  const int result = change.act();
  if (result == SQLITE_OK || result == SQLITE_DONE) {
    pendingWrites_ = true;
    return {};
  }
  Outcome outcome = writer_.failure(result);
  seen_.forget();
  noteLoss();
  return outcome;
}

// Some errors, a full disk among them, make SQLite give up the whole transaction; a look-up can meet one as
// well as a write, because it may have to make room for the page that it reads.
void RegistryStore::noteLoss() {
  if (!pendingWrites_ || writer_.inTransaction()) return;
  lostWrites_ = true;
  pendingWrites_ = false;
}

Outcome RegistryStore::beginTransaction() {
  const auto deadline = steady_clock::now() + (hasWaited_ ? milliseconds::zero() : writeWait_.load());
  for (;;) {
    Outcome outcome = tryBegin();
    if (!outcome.locked || steady_clock::now() >= deadline) return outcome;
    std::this_thread::sleep_for(kWriteLockPoll);
  }
}

Outcome RegistryStore::tryBegin() {
  seen_.forget();
  Outcome outcome = openFor(writer_, Access::kWriting);
  if (!outcome.ok()) return outcome;
  if (isSnapshot_) rollBack();  // what is to be written is compared with what is committed now
  const int result = writer_.runWithoutWaiting(Sql::kBegin);
  return result == SQLITE_OK ? outcome : writer_.failure(result);
}

Outcome RegistryStore::commitTransaction() {
  const int result = writer_.run(Sql::kCommit);
  isSnapshot_ = false;
  if (result == SQLITE_OK) {
    if (pendingWrites_) reportSuccess(Access::kWriting);
    pendingWrites_ = false;
    return {};
  }
  Outcome outcome = writer_.failure(result);
  if (writer_.inTransaction()) writer_.run(Sql::kRollback);
  lostWrites_ = lostWrites_ || pendingWrites_;
  pendingWrites_ = false;
  noteFault(outcome);
  reportFailure(Access::kWriting, outcome);
  return outcome;
}

void RegistryStore::rollBack() {
  if (writer_.inTransaction()) writer_.run(Sql::kRollback);
  isSnapshot_ = false;
  pendingWrites_ = false;
}

// A batch that locks at once compares nothing before it has the write lock, also after a transaction was
// lost. Where nothing may be written, one snapshot takes the lock's place. When another process keeps the
// lock, the comparisons go on without it: what is there already needs no write, and a write then takes the
// lock or fails.
void RegistryStore::holdStill() {
  noteLoss();
  if (!locksAtOnce_ || writer_.inTransaction()) return;
  const Outcome outcome = beginTransaction();
  noteLock(outcome);
  seen_.forget();
  if (!outcome.ok() && writer_.isOpen() && writer_.isReadOnly())
    isSnapshot_ = writer_.run(Sql::kBeginReading) == SQLITE_OK;
}

void RegistryStore::noteLock(const Outcome& outcome) {
  // A batch of thousands of records waits once for a process that does not let go, not once for each record.
  if (outcome.locked && batchDepth_ > 0) hasWaited_ = true;
}

void RegistryStore::beginBatch() {
  if (isInherited_) return;
  writerLock_.lock();
  if (batchDepth_++ != 0) return;
  lostWrites_ = false;
  pendingWrites_ = false;
  batchOwner_ = std::this_thread::get_id();
}

void RegistryStore::beginSnapshot() {
  if (isInherited_) return;
  beginBatch();
  if (batchDepth_ > 1 || !openFor(writer_, Access::kReading).ok()) return;
  seen_.forget();
  isSnapshot_ = writer_.run(Sql::kBeginReading) == SQLITE_OK;
}

void RegistryStore::endSnapshot() {
  if (isInherited_) return;
  if (batchDepth_ == 1 && isSnapshot_) rollBack();
  static_cast<void>(endBatch());
}

void RegistryStore::lockBatch() {
  if (isInherited_) return;
  locksAtOnce_ = true;
  holdStill();
}

bool RegistryStore::endBatch() {
  if (isInherited_) return false;
  noteLoss();
  // What a commit that fails has lost is noted and reported there.
  if (batchDepth_ == 1 && writer_.inTransaction()) static_cast<void>(commitTransaction());
  const bool survived = !lostWrites_;
  if (batchDepth_ == 1 && !survived) tellLostBatch();
  leaveBatch();
  return survived;
}

void RegistryStore::abandonBatch() {
  if (isInherited_) return;
  rollBack();
  lostWrites_ = true;
  leaveBatch();
}

void RegistryStore::leaveBatch() {
  if (--batchDepth_ == 0) {
    batchOwner_ = std::thread::id();
    locksAtOnce_ = false;
    hasWaited_ = false;
  }
  writerLock_.unlock();
}

}  // namespace lqregistry
