// The public face of the registry file: which one it is, whether it is sound, write batches and snapshots.
#include "lqregistry/LqRegistryFile.h"

#include <exception>

#include "platform/registry/registry_store.h"

namespace lqregistry {

void UseFile(const std::string& path) {
  RegistryStore::get().useFile(path);
}

std::string File() {
  return RegistryStore::get().file();
}

void UseWriteWait(std::chrono::milliseconds wait) {
  RegistryStore::get().useWriteWait(wait);
}

CWmError Check() {
  const Outcome outcome = RegistryStore::get().check();
  return outcome.ok() ? CWmError() : CWmError(kLqErrFile, File() + ": " + outcome.reason);
}

bool IsInBatch() {
  return RegistryStore::get().isBatchHere();
}

WriteBatch::WriteBatch() : exceptions_(std::uncaught_exceptions()) {
  RegistryStore::get().beginBatch();
}

WriteBatch::~WriteBatch() {
  // Half a batch, left by an exception, is not what anybody meant to write.
  if (std::uncaught_exceptions() > exceptions_)
    abandon();
  else
    commit();
}

void WriteBatch::lock() {
  if (open_) RegistryStore::get().lockBatch();
}

bool WriteBatch::commit() {
  if (!open_) return false;
  open_ = false;
  return RegistryStore::get().endBatch();
}

void WriteBatch::abandon() {
  if (!open_) return;
  open_ = false;
  RegistryStore::get().abandonBatch();
}

ReadSnapshot::ReadSnapshot() {
  RegistryStore::get().beginSnapshot();
}

ReadSnapshot::~ReadSnapshot() {
  RegistryStore::get().endSnapshot();
}

}  // namespace lqregistry
