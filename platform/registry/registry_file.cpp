// The public face of the registry file: which one it is, whether it is sound, and write batches.
#include "lqregistry/LqRegistryFile.h"

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

bool Check(std::string& reason) {
  Outcome outcome = RegistryStore::get().check();
  if (!outcome.ok()) reason = File() + ": " + outcome.reason;
  return outcome.ok();
}

WriteBatch::WriteBatch() {
  RegistryStore::get().beginBatch();
}

WriteBatch::~WriteBatch() {
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

}  // namespace lqregistry
