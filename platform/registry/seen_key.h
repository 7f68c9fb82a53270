// What an open transaction has seen of the key that it looked at last.
//
// Within a transaction nothing changes but by its own writes, which are noted here as well, so a value that
// was compared is not looked up again to be written. Batches come key by key: once several values of one key
// were looked up, the store reads its values in one ordered scan, which costs a fraction of the look-ups that
// it saves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace lqregistry {

struct StoredValue {
  unsigned type = 0;
  std::string data;
};

// Scans come after so many look-ups in one key and each time that number has doubled, and read so many
// values for each of those: that costs about what the look-ups did. So a key of which a batch brings a few
// values is hardly scanned, and one of which it brings many is soon known as a whole.
inline constexpr std::size_t kFirstScan = 4;
inline constexpr std::size_t kValuesPerLookUp = 16;

// What is known of one key.
struct KnownKey {
  std::string path;
  std::optional<std::int64_t> id;
  bool isWhole = false;  // a name that is not among the values is not there
  std::map<std::string, std::optional<StoredValue>, std::less<>> values;
  std::string scannedUpTo;
  std::size_t scannedValues = 0;
  std::size_t scannedBytes = 0;
  std::size_t lookUps = 0;
  std::size_t nextScan = kFirstScan;
};

class SeenKey {
 public:
  // Nothing is known any more.
  void forget() { key_.reset(); }
  // What is known from here on is of this key, which another one's knowledge gives way to.
  void turnTo(const std::string& path);
  void turnTo(const std::string& path, std::int64_t id);
  bool isOf(std::string_view path) const { return key_ && key_->path == path; }

  // Of the key that was turned to: its row, once it is known; nothing when the key does not exist.
  std::optional<std::int64_t> id() const { return key_->id; }
  void noteRow(std::optional<std::int64_t> id);
  void noteCreated(std::int64_t id);

  // Whether it is known what the key holds under this name; then `value` is that, or null for nothing.
  bool knows(const std::string& name, const StoredValue*& value) const;
  // What a look-up found, or a write left; not kept when no key is known.
  void note(const std::string& name, unsigned type, std::string_view data);
  void noteAbsent(const std::string& name);

  // How many values are to be scanned before the next look-up; 0 for none.
  std::size_t valuesToScan();
  // Where the last scan ended; the next one begins behind it. Empty before the first.
  const std::string& scannedUpTo() const { return key_->scannedUpTo; }
  // One value of a scan, in the order of their names. False when the scan has kept enough in memory.
  bool noteScanned(std::string_view name, StoredValue value);
  void noteScannedToTheEnd() { key_->isWhole = true; }

 private:
  std::optional<KnownKey> key_;
};

}  // namespace lqregistry
