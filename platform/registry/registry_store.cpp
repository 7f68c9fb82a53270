// The store's operations: opening at first use, look-ups, and what each write does. How a write becomes a
// transaction is in registry_transactions.cpp.
#include "platform/registry/registry_store.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObDebug.h"
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr std::int64_t kNoParent = 0;
// How long a statement that only reads waits for another process, which the log mode makes rare: while a
// registry is being created, or recovered after a crash.
constexpr std::chrono::milliseconds kReadWait{5000};

// For the handler of a fork, which must not wait until get() has made it.
RegistryStore* forkedStore = nullptr;

Outcome keyMissing() {
  return {kRegKeyMissing, "the key does not exist"};
}
Outcome valueMissing() {
  return {kRegValueMissing, "the value does not exist"};
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

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

Outcome RegistryStore::openFor(Connection& connection, Access access) {
  if (connection.isOpen() && access == Access::kReading &&
      (connection.inTransaction() || connection.isCurrent()))
    return {};
  if (connection.isOpen() && !connection.isReadOnly()) return {};
  const std::string path = file();
  // The file may have become writable since it was opened.
  if (connection.isOpen() && access == Access::kWriting &&
      (connection.inTransaction() || ::access(path.c_str(), W_OK) != 0))
    return {kRegUnavailable, "the file is read-only"};
  Outcome outcome = connection.open(path, access, kReadWait);
  if (!outcome.ok()) return outcome;
  if (access == Access::kWriting && connection.isReadOnly())
    return {kRegUnavailable, "the file is read-only"};
  return {};
}

Outcome RegistryStore::read(const std::function<Outcome(Connection&)>& look) {
  if (isInherited_) return inherited();
  if (isBatchHere()) {
    holdStill();
    return readFrom(writer_, look);
  }
  const std::lock_guard reader(readerLock_);
  return readFrom(reader_, look);
}

Outcome RegistryStore::readFrom(Connection& connection, const std::function<Outcome(Connection&)>& look) {
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
    if (!slot.valueExists) return valueMissing();
    value = std::move(slot.value);
    return Outcome{};
  });
}

Outcome RegistryStore::readValues(const std::string& key, std::map<std::string, std::string>& values) {
  return read([&](Connection& connection) {
    std::int64_t id = 0;
    Outcome outcome = findKey(connection, key, id);
    if (!outcome.ok()) return outcome;
    std::map<std::string, std::string> found;
    Query query(connection, Sql::kValues);
    int result = query.bind(id).step();
    for (; result == SQLITE_ROW; result = query.step())
      found.emplace_hint(found.end(), query.bytes(0), query.bytes(1));
    if (result != SQLITE_DONE) return connection.failure(result);
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
  return change({true, look, [&] { return ensureKey(key, id); }});
}

Outcome RegistryStore::writeValue(const std::string& key, const std::string& name, unsigned type,
                                  std::string_view data) {
  Slot slot;
  const auto look = [&](bool& needed) {
    Outcome outcome = findSlot(writer_, key, name, slot);
    if (outcome.ok() && !slot.keyExists) return keyMissing();
    needed = !slot.valueExists || slot.value.type != type || slot.value.data != data;
    return outcome;
  };
  return change({false, look, [&] { return putValue(slot.keyId, name, type, data); }});
}

Outcome RegistryStore::writeValueCreatingKey(const std::string& key, const std::string& name, unsigned type,
                                             std::string_view data) {
  Slot slot;
  const auto look = [&](bool& needed) {
    Outcome outcome = findSlot(writer_, key, name, slot);
    needed = !slot.valueExists || slot.value.type != type || slot.value.data != data;
    return outcome;
  };
  const auto act = [&] {
    const int result = slot.keyExists ? SQLITE_OK : ensureKey(key, slot.keyId);
    return result == SQLITE_OK ? putValue(slot.keyId, name, type, data) : result;
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
    if (!slot.valueExists) return valueMissing();
    needed = true;
    return Outcome{};
  };
  return change(
      {false, look, [&] { return Query(writer_, Sql::kRemoveValue).bind(slot.keyId).bind(name).step(); }});
}

Outcome RegistryStore::findSlot(Connection& connection, const std::string& key, const std::string& name,
                                Slot& slot) {
  // What the write lock protects stays as it was seen, so a record that is compared, tested and then written
  // is looked up once.
  const bool isProtected = &connection == &writer_ && isWriting();
  if (isProtected && last_.isValid && last_.key == key && last_.name == name) {
    slot = last_.slot;
    return {};
  }
  slot = {};
  Query query(connection, Sql::kFindValue);
  const int result = query.bind(key).bind(name).step();
  if (result != SQLITE_DONE && result != SQLITE_ROW) return connection.failure(result);
  slot.keyExists = result == SQLITE_ROW;
  if (slot.keyExists) {
    slot.keyId = query.number(0);
    slot.valueExists = !query.isNull(1);
  }
  if (slot.valueExists) slot.value = {static_cast<unsigned>(query.number(1)), std::string(query.bytes(2))};
  if (isProtected) last_ = {true, key, name, slot};
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
  for (const auto next : missing) {
    const auto name = next.substr(next.rfind('/') + 1);  // npos + 1 is the start
    const int result = Query(writer_, Sql::kAddKey).bind(next).bind(id).bind(name).step();
    if (result != SQLITE_DONE) return result;
    id = writer_.lastKeyId();
  }
  return SQLITE_OK;
}

int RegistryStore::putValue(std::int64_t keyId, const std::string& name, unsigned type,
                            std::string_view data) {
  Query query(writer_, Sql::kPutValue);
  return query.bind(keyId).bind(name).bind(std::int64_t{type}).bind(data).step();
}

void RegistryStore::reportSuccess(Access access) {
  const std::lock_guard state(stateLock_);
  readFault_.clear();
  if (access == Access::kWriting) writeFault_.clear();
}

void RegistryStore::reportFailure(Access access, const Outcome& outcome) {
  std::string path;
  {
    // Ten thousand records against a full disk are one line, not ten thousand.
    const std::lock_guard state(stateLock_);
    std::string& fault = access == Access::kReading ? readFault_ : writeFault_;
    const bool known = outcome.reason == readFault_ || outcome.reason == writeFault_;
    fault = outcome.reason;
    if (known) return;
    path = pathInForce();
  }
  ObEvent().Error("lqregistry::RegistryStore", "The registry file %s cannot be %s: %s", path.c_str(),
                  access == Access::kReading ? "read" : "written", outcome.reason.c_str());
}

}  // namespace lqregistry
