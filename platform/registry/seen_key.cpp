#include "platform/registry/seen_key.h"

#include <limits>
#include <utility>

namespace lqregistry {

namespace {

// Scans come after so many look-ups in one key and each time that number has doubled, and read so many values
// for each of those: that costs about what the look-ups did. So a key of which a batch brings a few values is
// hardly scanned, and one of which it brings many is soon known as a whole.
constexpr std::size_t kFirstScan = 4;
constexpr std::size_t kValuesPerLookUp = 16;

// A value may be of any size; scans of one key keep no more than this.
constexpr std::size_t kMaxScannedBytes = 1U << 20;

}  // namespace

void SeenKey::turnTo(const std::string& path) {
  if (isOf(path)) return;
  isKnown_ = true;
  isWhole_ = false;
  path_ = path;
  id_.reset();
  values_.clear();
  scannedUpTo_.clear();
  scannedValues_ = 0;
  scannedBytes_ = 0;
  lookUps_ = 0;
  nextScan_ = kFirstScan;
}

void SeenKey::turnTo(const std::string& path, std::int64_t id) {
  turnTo(path);
  id_ = id;
}

void SeenKey::noteRow(std::optional<std::int64_t> id) {
  id_ = id;
  if (!id) isWhole_ = true;
}

void SeenKey::noteCreated(std::int64_t id) {
  id_ = id;
  isWhole_ = true;
}

bool SeenKey::knows(const std::string& name, const StoredValue*& value) const {
  const auto found = values_.find(name);
  if (found == values_.end() && !isWhole_ && name > scannedUpTo_) return false;
  value = found != values_.end() && found->second ? &*found->second : nullptr;
  return true;
}

void SeenKey::note(const std::string& name, unsigned type, std::string_view data) {
  std::optional<StoredValue>& value = values_[name];
  if (!value) value.emplace();
  value->type = type;
  value->data = data;
}

void SeenKey::noteAbsent(const std::string& name) {
  values_[name].reset();
}

std::size_t SeenKey::valuesToScan() {
  if (!id_ || ++lookUps_ < nextScan_) return 0;
  nextScan_ *= 2;
  return lookUps_ * kValuesPerLookUp - scannedValues_;
}

bool SeenKey::noteScanned(std::string_view name, StoredValue value) {
  ++scannedValues_;
  scannedBytes_ += value.data.size();
  scannedUpTo_ = name;
  values_.insert_or_assign(values_.end(), std::string(name), std::move(value));
  if (scannedBytes_ <= kMaxScannedBytes) return true;
  nextScan_ = std::numeric_limits<std::size_t>::max();
  return false;
}

}  // namespace lqregistry
