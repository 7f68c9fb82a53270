#include "platform/registry/seen_key.h"

#include <limits>
#include <utility>

namespace lqregistry {

namespace {

// A value may be of any size; scans of one key keep no more than this.
constexpr std::size_t kMaxScannedBytes = 1U << 20;

}  // namespace

void SeenKey::turnTo(const std::string& path) {
  if (!isOf(path)) key_.emplace().path = path;
}

void SeenKey::turnTo(const std::string& path, std::int64_t id) {
  turnTo(path);
  key_->id = id;
}

void SeenKey::noteRow(std::optional<std::int64_t> id) {
  key_->id = id;
  if (!id) key_->isWhole = true;
}

void SeenKey::noteCreated(std::int64_t id) {
  key_->id = id;
  key_->isWhole = true;
}

bool SeenKey::knows(const std::string& name, const StoredValue*& value) const {
  const auto found = key_->values.find(name);
  if (found == key_->values.end() && !key_->isWhole && name > key_->scannedUpTo) return false;
  value = found != key_->values.end() && found->second ? &*found->second : nullptr;
  return true;
}

void SeenKey::note(const std::string& name, unsigned type, std::string_view data) {
  if (!key_) return;
  std::optional<StoredValue>& value = key_->values[name];
  if (!value) value.emplace();
  value->type = type;
  value->data = data;
}

void SeenKey::noteAbsent(const std::string& name) {
  if (key_) key_->values[name].reset();
}

std::size_t SeenKey::valuesToScan() {
  if (!key_->id || ++key_->lookUps < key_->nextScan) return 0;
  key_->nextScan *= 2;
  return key_->lookUps * kValuesPerLookUp - key_->scannedValues;
}

bool SeenKey::noteScanned(std::string_view name, StoredValue value) {
  ++key_->scannedValues;
  key_->scannedBytes += value.data.size();
  key_->scannedUpTo = name;
  key_->values.insert_or_assign(key_->values.end(), std::string(name), std::move(value));
  if (key_->scannedBytes <= kMaxScannedBytes) return true;
  key_->nextScan = std::numeric_limits<std::size_t>::max();
  return false;
}

}  // namespace lqregistry
