// The public face of the registry file: which one it is, and write batches.
#include "lqregistry/LqRegistryFile.h"

#include "platform/registry/registry_store.h"

namespace lqregistry {

void UseFile(const std::string& path) {
  RegistryStore::get().useFile(path);
}

std::string File() {
  return RegistryStore::get().file();
}

WriteBatch::WriteBatch() {
  RegistryStore::get().beginBatch();
}

WriteBatch::~WriteBatch() {
  commit();
}

bool WriteBatch::flush() {
  return open_ && RegistryStore::get().flushBatch();
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
