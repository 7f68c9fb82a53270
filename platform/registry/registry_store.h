// The process's registry store: the operations behind LQPlatformInfo, and write batches.
//
// Two connections per process. All writes go through one of them, and so do the reads of the thread that has
// a batch open, which therefore sees what it has written; every other thread reads through the second one,
// which shows what is committed. Three locks, always taken in this order:
// clang-format off
//   the writer lock  recursive; guards the writing connection; held for each write and for the whole life of
//                    a batch, so that no other thread's write joins a transaction that is not its own
//   the reader lock  guards the reading connection; held for one look-up at a time, so readers wait for no
//                    writer
//   the state lock   guards the path and the reasons that were logged; held for a moment
// clang-format on
// A child that was forked while the file was open can use neither: connections and locks are its parent's.
// Paths and names that come here are resolved and checked (registry_path.h).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "lqregistry/LqRegistryFile.h"
#include "platform/registry/function_ref.h"
#include "platform/registry/registry_connection.h"
#include "platform/registry/seen_key.h"

namespace lqregistry {

class RegistryStore {
 public:
  static RegistryStore& get();

  void useFile(const std::string& path);
  std::string file();
  void useWriteWait(std::chrono::milliseconds wait) { writeWait_ = wait; }
  // Whether the calling thread has a batch open.
  bool isBatchHere() const { return batchOwner_ == std::this_thread::get_id(); }
  Outcome check();

  Outcome readValue(const std::string& key, const std::string& name, StoredValue& value);
  Outcome readValues(const std::string& key, std::map<std::string, std::string>& values);
  Outcome listSubKeys(const std::string& key, std::list<std::string>& names);

  // In a batch, a failed write may leave keys that it had already created.
  Outcome createKey(const std::string& key);
  Outcome writeValue(const std::string& key, const std::string& name, unsigned type, std::string_view data);
  Outcome writeValueCreatingKey(const std::string& key, const std::string& name, unsigned type,
                                std::string_view data);
  Outcome removeKey(const std::string& key);
  Outcome removeValue(const std::string& key, const std::string& name);

  // Batches and snapshots; see WriteBatch and ReadSnapshot. Begin and end on the same thread.
  void beginSnapshot();
  void endSnapshot();
  void beginBatch();
  void lockBatch();
  bool endBatch();
  void abandonBatch();

 private:
  // A value's place: which key, and what it holds now, if anything. The value is what the transaction has
  // seen, or was read into the slot.
  struct Slot {
    Slot() = default;
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    bool holds(unsigned type, std::string_view data) const {
      return value != nullptr && value->type == type && value->data == data;
    }

    std::int64_t keyId = 0;
    bool keyExists = false;
    const StoredValue* value = nullptr;
    StoredValue own;
  };

  // A write: `look` finds out, without changing anything, whether there is something to do; `act` does it.
  struct Change {
    bool createsFile = false;
    FunctionRef<Outcome(bool& needed)> look;
    FunctionRef<int()> act;
  };

  RegistryStore() = default;
  void closeAtExit();
  void noteFork();
  Outcome inherited();

  static Outcome readOnly();
  Outcome openFor(Connection& connection, Access access);
  Outcome read(FunctionRef<Outcome(Connection&)> look);
  Outcome readFrom(Connection& connection, FunctionRef<Outcome(Connection&)> look);
  Outcome change(const Change& change);
  Outcome attempt(const Change& change);
  Outcome lookFor(const Change& change, bool& needed);
  Outcome beginTransaction();
  Outcome tryBegin();
  Outcome act(const Change& change);
  Outcome commitTransaction();
  void rollBack();
  void holdStill();
  void noteLock(const Outcome& outcome);
  void noteLoss();
  // Whether nothing but this thread's own writes can change what the connection shows.
  bool isStill(const Connection& connection) const {
    return &connection == &writer_ && writer_.inTransaction();
  }
  bool isWriting() const { return writer_.inTransaction() && !isSnapshot_; }
  void leaveBatch();

  // In a transaction of the writing connection, from what it has seen when that is enough.
  Outcome findSlot(Connection& connection, const std::string& key, const std::string& name, Slot& slot);
  Outcome findSeen(const std::string& key, const std::string& name, Slot& slot);
  static Outcome lookUp(Connection& connection, const std::string& key, const std::string& name, Slot& slot);
  Outcome scanSeen(std::size_t values);
  static Outcome findKey(Connection& connection, std::string_view key, std::int64_t& id);
  static int lookUpKey(Connection& connection, std::string_view key, std::int64_t& id);
  int ensureKey(const std::string& key, std::int64_t& id);
  int putValue(const Slot& slot, const std::string& name, unsigned type, std::string_view data);

  void reportSuccess(Access access);
  void reportFailure(Access access, const Outcome& outcome);
  const std::string& pathInForce();

  std::recursive_mutex writerLock_;
  std::mutex readerLock_;
  std::mutex stateLock_;

  // Guarded by the writer lock.
  Connection writer_;
  int batchDepth_ = 0;
  bool locksAtOnce_ = false;    // the batch compares nothing outside a transaction
  bool isSnapshot_ = false;     // the open transaction may only read
  bool hasWaited_ = false;      // the batch waited for another process in vain, and does so only once
  bool pendingWrites_ = false;  // the open transaction holds changes
  bool lostWrites_ = false;     // changes of this batch, reported as successful, were rolled back
  SeenKey seen_;                // by the open transaction

  // Guarded by the reader lock.
  Connection reader_;

  // Guarded by the state lock.
  std::string path_;
  std::string readFault_;  // the reasons that were logged and have not gone away yet
  std::string writeFault_;
  std::atomic<bool> isFaulty_{false};  // one of the two is there; read without the lock

  std::atomic<std::thread::id> batchOwner_;
  std::atomic<std::chrono::milliseconds> writeWait_{kDefaultWriteWait};
  std::atomic<bool> isInherited_{false};  // by a forked child, from a parent that had the file open
  std::atomic<bool> isTold_{false};       // that it is; without the state lock, which may be held for ever
};

}  // namespace lqregistry
