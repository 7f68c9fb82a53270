// The store's operations: opening at first use, look-ups, and what each write does. How a write becomes a
// transaction is in registry_transactions.cpp.
#include "platform/registry/registry_store.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObDebug.h"
#include "platform/registry/watched_writes.h"
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr std::int64_t kNoParent = 0;
constexpr std::int64_t kNoLimit = -1;  // of the rows of a statement
// How long a statement that only reads waits for another process, which the log mode makes rare: while a
// registry is being created, or recovered after a crash.
constexpr std::chrono::milliseconds kReadWait{5000};

Outcome keyMissing() {
  return {kRegKeyMissing, "the key does not exist"};
}
Outcome valueMissing() {
  return {kRegValueMissing, "the value does not exist"};
}

// From a row whose columns 1 and 2 are type and data.
StoredValue valueAt(const Query& query) {
  return {static_cast<unsigned>(query.number(1)), std::string(query.bytes(2))};
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

}  // namespace

void RegistryStore::useFile(const std::string& path) {
  if (isInherited_) return;
  const std::lock_guard writer(writerLock_);
  const std::lock_guard reader(readerLock_);
  const std::lock_guard state(stateLock_);
  reader_.close();
  writer_.close();
  path_ = path.empty() ? path : absolutePath(path);
  readFault_.clear();
  writeFault_.clear();
  isFaulty_ = false;
  lqsecret::forgetKey();
}

std::string RegistryStore::file() {
  const std::lock_guard state(stateLock_);
  return pathInForce();
}

const std::string& RegistryStore::pathInForce() {
  if (path_.empty()) {
    const char* variable =
        std::getenv(lqsettings::kFileVariable);  // NOLINT(concurrency-mt-unsafe): nobody sets it
    path_ = absolutePath(variable != nullptr && *variable != '\0' ? variable : kDefaultFile);
  }
  return path_;
}

Outcome RegistryStore::check() {
  if (isInherited_) return inherited();
  // Through a connection of its own: the check reads the whole file, which nobody else has to wait for.
  Connection connection;
  const Outcome outcome = connection.open(file(), Access::kReading, kReadWait);
  if (outcome.code == kRegKeyMissing) return {};
  return outcome.ok() ? connection.check() : outcome;
}

Outcome RegistryStore::readOnly() {
  return {kRegUnavailable, "the file is read-only", false, WriteFault::kReadOnly};
}

Outcome RegistryStore::openFor(Connection& connection, Access access) {
  if (connection.isOpen() && access == Access::kReading &&
      (connection.inTransaction() || connection.isCurrent()))
    return {};
  if (connection.isOpen() && !connection.isReadOnly()) return {};
  const std::string path = file();
  // The file may have become writable since it was opened.
  if (connection.isOpen() && access == Access::kWriting &&
      (connection.inTransaction() || ::access(path.c_str(), W_OK) != 0))
    return readOnly();
  Outcome outcome = connection.open(path, access, kReadWait);
  if (!outcome.ok()) return outcome;
  if (access == Access::kWriting && connection.isReadOnly()) return readOnly();
  return {};
}

Outcome RegistryStore::read(FunctionRef<Outcome(Connection&)> look) {
  if (isInherited_) return inherited();
  if (isBatchHere()) {
    holdStill();
    return readFrom(writer_, look);
  }
  const std::lock_guard reader(readerLock_);
  return readFrom(reader_, look);
}

Outcome RegistryStore::readFrom(Connection& connection, FunctionRef<Outcome(Connection&)> look) {
  Outcome outcome = openFor(connection, Access::kReading);
  if (outcome.ok()) outcome = look(connection);
  if (outcome.code == kRegUnavailable)
    reportFailure(Access::kReading, outcome);
  else
    reportSuccess(Access::kReading);
  return outcome;
}

Outcome RegistryStore::readValue(const std::string& key, const std::string& name, StoredValue& value) {
  return read([&](Connection& connection) {
    Slot slot;
    Outcome outcome = findSlot(connection, key, name, slot);
    if (!outcome.ok()) return outcome;
    if (!slot.keyExists) return keyMissing();
    if (slot.value == nullptr) return valueMissing();
    if (slot.value == &slot.own)
      value = std::move(slot.own);
    else
      value = *slot.value;
    return Outcome{};
  });
}

Outcome RegistryStore::readValues(const std::string& key, std::map<std::string, std::string>& values) {
  return read([&](Connection& connection) {
    std::int64_t id = 0;
    Outcome outcome = findKey(connection, key, id);
    if (!outcome.ok()) return outcome;
    // Whoever lists a key within a transaction asks for its values next.
    SeenKey* const seen = isStill(connection) ? &seen_ : nullptr;
    if (seen != nullptr) seen->turnTo(key, id);
    bool isKept = seen != nullptr;
    std::map<std::string, std::string> found;
    Query query(connection, Sql::kScanKey);
    int result = query.bind(id).bind("").bind(kNoLimit).step();
    for (; result == SQLITE_ROW; result = query.step()) {
      isKept = isKept && seen->noteScanned(query.bytes(0), valueAt(query));
      found.emplace_hint(found.end(), query.bytes(0), query.bytes(2));
    }
    if (result != SQLITE_DONE) return connection.failure(result);
    if (isKept) seen->noteScannedToTheEnd();
    values.swap(found);
    return Outcome{};
  });
}

Outcome RegistryStore::listSubKeys(const std::string& key, std::list<std::string>& names) {
  return read([&](Connection& connection) {
    std::int64_t id = 0;
    Outcome outcome = findKey(connection, key, id);
    if (!outcome.ok()) return outcome;
    std::list<std::string> found;
    Query query(connection, Sql::kSubKeys);
    int result = query.bind(id).step();
    for (; result == SQLITE_ROW; result = query.step()) found.emplace_back(query.bytes(0));
    if (result != SQLITE_DONE) return connection.failure(result);
    names.splice(names.end(), found);
    return Outcome{};
  });
}

Outcome RegistryStore::createKey(const std::string& key) {
  std::int64_t id = 0;
  const auto look = [&](bool& needed) {
    Outcome outcome = findKey(writer_, key, id);
    needed = outcome.code == kRegKeyMissing;
    return needed ? Outcome{} : outcome;
  };
  const auto act = [&] {
    noteBefore(nullptr);
    return ensureKey(key, id);
  };
  return change({true, look, act});
}

Outcome RegistryStore::writeValue(const std::string& key, const std::string& name, unsigned type,
                                  std::string_view data) {
  Slot slot;
  const auto look = [&](bool& needed) {
    Outcome outcome = findSlot(writer_, key, name, slot);
    if (outcome.ok() && !slot.keyExists) return keyMissing();
    needed = !slot.holds(type, data);
    return outcome;
  };
  const auto act = [&] {
    noteBefore(slot.value);
    return putValue(slot, name, type, data);
  };
  return change({false, look, act});
}

Outcome RegistryStore::writeValueCreatingKey(const std::string& key, const std::string& name, unsigned type,
                                             std::string_view data) {
  Slot slot;
  const auto look = [&](bool& needed) {
    Outcome outcome = findSlot(writer_, key, name, slot);
    needed = !slot.holds(type, data);
    return outcome;
  };
  const auto act = [&] {
    noteBefore(slot.value);
    const int result = slot.keyExists ? SQLITE_OK : ensureKey(key, slot.keyId);
    return result == SQLITE_OK ? putValue(slot, name, type, data) : result;
  };
  return change({true, look, act});
}

Outcome RegistryStore::removeKey(const std::string& key) {
  const auto look = [&](bool& needed) {
    std::int64_t id = 0;
    needed = true;
    return findKey(writer_, key, id);
  };
  const auto act = [&] {
    const std::string afterKey = key + '/';
    const std::string afterSubtree = key + static_cast<char>('/' + 1);
    static const StoredValue someKey;
    noteBefore(&someKey);
    seen_.forget();
    return Query(writer_, Sql::kRemoveSubtree).bind(key).bind(afterKey).bind(afterSubtree).step();
  };
  return change({false, look, act});
}

Outcome RegistryStore::removeValue(const std::string& key, const std::string& name) {
  Slot slot;
  const auto look = [&](bool& needed) {
    Outcome outcome = findSlot(writer_, key, name, slot);
    if (!outcome.ok()) return outcome;
    if (!slot.keyExists) return keyMissing();
    if (slot.value == nullptr) return valueMissing();
    needed = true;
    return Outcome{};
  };
  const auto act = [&] {
    noteBefore(slot.value);
    const int result = Query(writer_, Sql::kRemoveValue).bind(slot.keyId).bind(name).step();
    if (result == SQLITE_DONE) seen_.noteAbsent(name);
    return result;
  };
  return change({false, look, act});
}

Outcome RegistryStore::findSlot(Connection& connection, const std::string& key, const std::string& name,
                                Slot& slot) {
  return isStill(connection) ? findSeen(key, name, slot) : lookUp(connection, key, name, slot);
}

Outcome RegistryStore::findSeen(const std::string& key, const std::string& name, Slot& slot) {
  seen_.turnTo(key);
  bool isKnown = seen_.knows(name, slot.value);
  if (const std::size_t values = isKnown ? 0 : seen_.valuesToScan(); values != 0) {
    Outcome outcome = scanSeen(values);
    if (!outcome.ok()) return outcome;
    isKnown = seen_.knows(name, slot.value);
  }
  if (!isKnown) {
    Outcome outcome = lookUp(writer_, key, name, slot);
    if (!outcome.ok()) return outcome;
    seen_.noteRow(slot.keyExists ? std::optional(slot.keyId) : std::nullopt);
    if (slot.value != nullptr)
      seen_.note(name, slot.value->type, slot.value->data);
    else
      seen_.noteAbsent(name);
  }
  slot.keyExists = seen_.id().has_value();
  slot.keyId = seen_.id().value_or(kNoParent);
  return {};
}

Outcome RegistryStore::lookUp(Connection& connection, const std::string& key, const std::string& name,
                              Slot& slot) {
  Query query(connection, Sql::kFindValue);
  const int result = query.bind(key).bind(name).step();
  if (result != SQLITE_DONE && result != SQLITE_ROW) return connection.failure(result);
  slot.value = nullptr;
  slot.keyExists = result == SQLITE_ROW;
  if (!slot.keyExists) return {};
  slot.keyId = query.number(0);
  if (query.isNull(1)) return {};
  slot.own = valueAt(query);
  slot.value = &slot.own;
  return {};
}

Outcome RegistryStore::scanSeen(std::size_t values) {
  Query query(writer_, Sql::kScanKey);
  const std::string from = seen_.scannedUpTo();
  query.bind(*seen_.id()).bind(from).bind(static_cast<std::int64_t>(values));
  int result = query.step();
  for (; result == SQLITE_ROW; --values, result = query.step()) {
    if (!seen_.noteScanned(query.bytes(0), valueAt(query))) return {};
  }
  if (result != SQLITE_DONE) return writer_.failure(result);
  if (values != 0) seen_.noteScannedToTheEnd();
  return {};
}

Outcome RegistryStore::findKey(Connection& connection, std::string_view key, std::int64_t& id) {
  const int result = lookUpKey(connection, key, id);
  if (result == SQLITE_ROW) return {};
  return result == SQLITE_DONE ? keyMissing() : connection.failure(result);
}

int RegistryStore::lookUpKey(Connection& connection, std::string_view key, std::int64_t& id) {
  Query query(connection, Sql::kFindKey);
  const int result = query.bind(key).step();
  if (result == SQLITE_ROW) id = query.number(0);
  return result;
}

int RegistryStore::ensureKey(const std::string& key, std::int64_t& id) {
  // Up to the nearest key that exists, and down again.
  std::vector<std::string_view> missing;
  std::string_view path = key;
  id = kNoParent;
  while (!path.empty()) {
    const int result = lookUpKey(writer_, path, id);
    if (result == SQLITE_ROW) break;
    if (result != SQLITE_DONE) return result;
    missing.push_back(path);
    const auto separator = path.rfind('/');
    path = separator == std::string_view::npos ? std::string_view() : path.substr(0, separator);
  }
  std::reverse(missing.begin(), missing.end());
  if (!seen_.isOf(key)) seen_.forget();  // it may be one of those that are created on the way
  for (const auto next : missing) {
    const auto name = next.substr(next.rfind('/') + 1);  // npos + 1 is the start
    const int result = Query(writer_, Sql::kAddKey).bind(next).bind(id).bind(name).step();
    if (result != SQLITE_DONE) return result;
    id = writer_.lastKeyId();
  }
  if (!missing.empty() && seen_.isOf(key)) seen_.noteCreated(id);
  return SQLITE_OK;
}

int RegistryStore::putValue(const Slot& slot, const std::string& name, unsigned type, std::string_view data) {
  Query query(writer_, slot.value != nullptr ? Sql::kUpdateValue : Sql::kAddValue);
  const int result = query.bind(std::int64_t{type}).bind(data).bind(slot.keyId).bind(name).step();
  if (result == SQLITE_DONE) seen_.note(name, type, data);
  return result;
}

void RegistryStore::reportSuccess(Access access) {
  if (!isFaulty_) return;
  const std::lock_guard state(stateLock_);
  readFault_.clear();
  if (access == Access::kWriting) writeFault_.clear();
  isFaulty_ = !writeFault_.empty();
}

void RegistryStore::reportFailure(Access access, const Outcome& outcome) {
  std::string path;
  {
    // Ten thousand records against a full disk are one line, not ten thousand.
    const std::lock_guard state(stateLock_);
    std::string& fault = access == Access::kReading ? readFault_ : writeFault_;
    const bool known = outcome.reason == readFault_ || outcome.reason == writeFault_;
    fault = outcome.reason;
    isFaulty_ = true;
    if (known) return;
    path = pathInForce();
  }
  ObEvent().Error("lqregistry::RegistryStore", "The registry file %s cannot be %s: %s", path.c_str(),
                  access == Access::kReading ? "read" : "written", outcome.reason.c_str());
}

}  // namespace lqregistry
