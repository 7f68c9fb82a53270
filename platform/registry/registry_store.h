// The process's registry store: the operations behind LQPlatformInfo, and write batches.
//
// One connection per process, and two locks that are always taken in this order:
//   the writer lock      recursive; held for each write and for the whole life of a write batch, so that no
//                        other thread's write joins a transaction that is not its own
//   the connection lock  held for one look-up or one change at a time; readers take only this one, so they
//                        see the writes of an open batch and wait for none
// Paths and names that come here are resolved and checked (registry_path.h).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/registry/registry_connection.h"

namespace lqregistry {

struct StoredValue {
  unsigned type = 0;
  std::string data;
};

class RegistryStore {
 public:
  static RegistryStore& get();

  void useFile(const std::string& path);
  std::string file();

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

  // Batches; see WriteBatch. Begin and end on the same thread.
  void beginBatch();
  bool flushBatch();
  bool endBatch();
  void abandonBatch();

 private:
  // A value's place: which key, and what it holds now.
  struct Slot {
    std::int64_t keyId = 0;
    bool keyExists = false;
    bool valueExists = false;
    StoredValue value;
  };

  // A write: `look` finds out, without changing anything, whether there is something to do; `act` does it.
  struct Change {
    bool createsFile = false;
    std::function<Outcome(bool& needed)> look;
    std::function<int()> act;
  };

  RegistryStore();
  void closeAtExit();

  Outcome openFor(Access access);
  Outcome read(const std::function<Outcome()>& look);
  Outcome change(const Change& change);
  Outcome attempt(const Change& change);
  Outcome lookFor(const Change& change, bool& needed);
  Outcome beginTransaction();
  Outcome tryBegin();
  Outcome act(const Change& change);
  Outcome commitTransaction();
  void rollBack();
  void noteLock(const Outcome& outcome);
  void setWait(std::chrono::milliseconds wait);
  bool inTransaction();

  Outcome findSlot(const std::string& key, const std::string& name, Slot& slot);
  Outcome findKey(std::string_view key, std::int64_t& id);
  int lookUpKey(std::string_view key, std::int64_t& id);
  int ensureKey(const std::string& key, std::int64_t& id);
  int putValue(std::int64_t keyId, const std::string& name, unsigned type, std::string_view data);

  void reportSuccess(Access access);
  void reportFailure(Access access, const Outcome& outcome);
  const std::string& pathInForce();

  std::recursive_mutex writerLock_;
  std::mutex connectionLock_;

  // Guarded by the connection lock.
  Connection connection_;
  std::string path_;
  std::chrono::milliseconds wait_;
  pid_t openedBy_ = 0;
  std::string readFault_;  // the reasons that were logged and have not gone away yet
  std::string writeFault_;

  // Guarded by the writer lock.
  int batchDepth_ = 0;
  bool pendingWrites_ = false;  // the open transaction holds changes
  bool lostWrites_ = false;     // changes of this batch, reported as successful, were rolled back
};

}  // namespace lqregistry
