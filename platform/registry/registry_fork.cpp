// The store as the one of its process: made at first use, closed at the end, and of no use to a forked child.
#include <pthread.h>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObDebug.h"
#include "platform/registry/registry_store.h"

namespace lqregistry {

namespace {

// For the handler of a fork, which must not wait until get() has made it.
RegistryStore* forkedStore = nullptr;

}  // namespace

RegistryStore& RegistryStore::get() {
  // Never destroyed: threads that outlive main() may still read. The connection is closed all the same, so
  // that a program which ends leaves one tidy file behind.
  static auto* const store = [] {
    forkedStore = new RegistryStore;
    pthread_atfork(nullptr, nullptr, [] { forkedStore->noteFork(); });
    return forkedStore;
  }();
  static const struct Closer {
    ~Closer() { store->closeAtExit(); }
  } closer;
  return *store;
}

// A forked child must not use or close what its parent uses (the file's locks are not inherited, although
// SQLite would think so), nor wait for a lock that a thread of the parent held.
void RegistryStore::noteFork() {
  isInherited_ = writer_.isOpen() || reader_.isOpen();
}

Outcome RegistryStore::inherited() {
  Outcome outcome{
      kRegUnavailable,
      "this process was forked from one that had the registry open; use it in one of the two only, "
      "which opens it after the fork, or start a program"};
  if (!isTold_.exchange(true))
    ObEvent().Error("lqregistry::RegistryStore", "The registry file cannot be used: %s",
                    outcome.reason.c_str());
  return outcome;
}

void RegistryStore::closeAtExit() {
  if (isInherited_) return;
  const std::unique_lock writer(writerLock_, std::try_to_lock);
  if (!writer.owns_lock()) return;
  const std::lock_guard reader(readerLock_);
  reader_.close();
  writer_.close();
}

}  // namespace lqregistry
