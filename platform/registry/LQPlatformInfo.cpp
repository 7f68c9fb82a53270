// LQPlatformInfo: each call resolves its path, asks the store, and records the outcome on the object.
#include "lqregistry/LQPlatformInfo.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "platform/registry/registry_path.h"
#include "platform/registry/registry_store.h"
#include "platform/registry/watched_writes.h"

using lqregistry::Outcome;
using lqregistry::RegistryStore;
using lqregistry::StoredValue;

namespace {

constexpr unsigned kTextType = 0;
constexpr std::size_t kHostNameBuffer = 1024;

Outcome badName(std::string reason) {
  return {kRegBadName, std::move(reason)};
}

// The instance an object looks at: its own focus, else the process's.
std::string_view instanceOf(const std::string& focus) {
  if (!focus.empty()) return focus;
  const char* current = LQPI_Focus::getFocus();
  return current == nullptr ? std::string_view() : std::string_view(current);
}

// The whole text as a decimal number.
bool parseNumber(const std::string& text, std::int64_t& number) {
  const char* end = text.data() + text.size();
  std::int64_t parsed = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, parsed);
  if (error != std::errc() || stop != end) return false;
  number = parsed;
  return true;
}

// Copies a text whole or not at all; a name that is cut would be another name.
bool copyText(const std::string& text, char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return false;
  std::string_view whole = text;
  if (whole.size() >= size) whole = {};
  buffer[whole.copy(buffer, size)] = '\0';
  return !whole.empty();
}

}  // namespace

LQPlatformInfo::LQPlatformInfo(const char* focus) {
  if (focus == nullptr) focus = LQPI_Focus::getFocus();
  if (focus != nullptr) focus_ = focus;
}

Outcome LQPlatformInfo::locate(const std::string& key) {
  const std::string_view instance = instanceOf(focus_);
  if (!place_.path.empty() && place_.key == key && place_.instance == instance) return {};
  place_.path.clear();
  Outcome outcome = lqregistry::ResolvePath(key, instance, place_.path);
  place_.key = key;
  place_.instance = instance;
  return outcome;
}

bool LQPlatformInfo::record(Outcome outcome, const std::string& key, const std::string& name) {
  lastError_ = outcome.code;
  if (outcome.ok()) return true;
  failure_ = {std::move(outcome.reason), key, name};
  return false;
}

std::string LQPlatformInfo::getRegErrorText() const {
  if (lastError_ == kRegOk) return {};
  std::string text = failure_.reason + " (file \"" + lqregistry::File() + "\", key \"" + failure_.key + "\"";
  if (!failure_.name.empty()) text += ", value \"" + failure_.name + "\"";
  return text + ")";
}

template <class Step>
bool LQPlatformInfo::onKey(const std::string& key, const Step& step) {
  Outcome outcome = locate(key);
  if (outcome.ok()) outcome = step(RegistryStore::get());
  return record(std::move(outcome), key);
}

template <class Step>
bool LQPlatformInfo::onValue(const std::string& key, const std::string& name, const Step& step) {
  Outcome outcome = lqregistry::CheckValueName(name);
  if (outcome.ok()) outcome = locate(key);
  if (outcome.ok()) outcome = step(RegistryStore::get());
  return record(std::move(outcome), key, name);
}

template <class Write>
bool LQPlatformInfo::watched(const std::string& key, const std::string& name, const Write& write) {
  lqregistry::WatchedWrite watch;
  const bool isDone = write();
  watch.end(isDone, lastError_, key, name, failure_.reason);
  return isDone;
}

bool LQPlatformInfo::getRegValue(const std::string& key, const std::string& name, unsigned& type,
                                 void* buffer, int& size) {
  return onValue(key, name, [&](RegistryStore& store) {
    StoredValue value;
    Outcome outcome = store.readValue(place_.path, name, value);
    if (!outcome.ok()) return outcome;
    const std::size_t needed = value.data.size() + 1;  // a string's data() ends with a NUL
    if (buffer == nullptr || size <= 0 || needed > static_cast<std::size_t>(size))
      return Outcome{kRegBufferTooSmall, "the value needs a buffer of " + std::to_string(needed) + " bytes"};
    std::memcpy(buffer, value.data.data(), needed);
    size = static_cast<int>(needed);
    type = value.type;
    return outcome;
  });
}

bool LQPlatformInfo::setRegValue(const std::string& key, const std::string& name, unsigned type,
                                 const void* data, int length) {
  const auto write = [&](RegistryStore& store) {
    if (length < 0 || (data == nullptr && length > 0)) return badName("the data has no length");
    const std::string_view bytes(static_cast<const char*>(data), static_cast<std::size_t>(length));
    return store.writeValue(place_.path, name, type, bytes);
  };
  return watched(key, name, [&] { return onValue(key, name, write); });
}

bool LQPlatformInfo::createRegKey(const std::string& key) {
  const auto create = [&](RegistryStore& store) { return store.createKey(place_.path); };
  return watched(key, {}, [&] { return onKey(key, create); });
}

bool LQPlatformInfo::delRegKey(const std::string& key) {
  const auto remove = [&](RegistryStore& store) {
    return lqregistry::HoldsInstance(place_.path)
               ? badName("the key is the root of the instance, or above it, and is not removed")
               : store.removeKey(place_.path);
  };
  return watched(key, {}, [&] { return onKey(key, remove); });
}

bool LQPlatformInfo::delRegField(const std::string& key, const std::string& name) {
  const auto remove = [&](RegistryStore& store) { return store.removeValue(place_.path, name); };
  return watched(key, name, [&] { return onValue(key, name, remove); });
}

bool LQPlatformInfo::getSubKeys(const std::string& key, std::list<std::string>& names) {
  return onKey(key, [&](RegistryStore& store) { return store.listSubKeys(place_.path, names); });
}

bool LQPlatformInfo::getRegValues(const std::string& key, std::map<std::string, std::string>& values) {
  return onKey(key, [&](RegistryStore& store) { return store.readValues(place_.path, values); });
}

bool LQPlatformInfo::getString(const std::string& section, const std::string& name, std::string& out) {
  return onValue(section, name, [&](RegistryStore& store) {
    StoredValue value;
    Outcome outcome = store.readValue(place_.path, name, value);
    if (outcome.ok()) out = std::move(value.data);
    return outcome;
  });
}

int LQPlatformInfo::setString(const std::string& section, const std::string& name, const std::string& value,
                              int) {
  const auto write = [&](RegistryStore& store) {
    return store.writeValueCreatingKey(place_.path, name, kTextType, value);
  };
  return watched(section, name, [&] { return onValue(section, name, write); }) ? 1 : 0;
}

bool LQPlatformInfo::getNumber(const std::string& section, const std::string& name, std::int64_t& out) {
  std::string text;
  if (!getString(section, name, text)) return false;
  if (parseNumber(text, out)) return true;
  return record({kRegValueMissing, "the value is not a number"}, section, name);
}

bool LQPlatformInfo::setNumber(const std::string& section, const std::string& name, std::int64_t value) {
  return setString(section, name, std::to_string(value), 0) != 0;
}

bool LQPlatformInfo::getDirectory(const std::string& section, const std::string& name, std::string& out) {
  std::string text;
  if (!getString(section, name, text)) return false;
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  out = std::move(text);
  return true;
}

bool LQPlatformInfo::findOverhubHostName(char* buffer) {
  std::string host;
  getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, host);
  return copyText(host, buffer, kHostNameBuffer);
}

bool LQPlatformInfo::getOverhubClientName(char* buffer, std::size_t size) {
  std::string client;
  getString(lqsettings::kServerName.key, lqsettings::kServerName.name, client);
  return copyText(client, buffer, size);
}

const char* LQPlatformInfo::getPhysicalMachine() {
  return getString(lqsettings::kPhysicalMachine.key, lqsettings::kPhysicalMachine.name, physicalMachine_)
             ? physicalMachine_.c_str()
             : nullptr;
}

bool LQPlatformInfo::getClientHostName(const char* machine, char* buffer, std::size_t max) {
  if (buffer == nullptr) return false;
  buffer[0] = '\0';
  if (machine == nullptr) return false;
  std::string host = machine;
  std::string thisMachine;
  std::string hostOfThisMachine;
  if (getString(lqsettings::kPhysicalMachine.key, lqsettings::kPhysicalMachine.name, thisMachine) &&
      thisMachine == host &&
      getString(lqsettings::kHostName.key, lqsettings::kHostName.name, hostOfThisMachine) &&
      !hostOfThisMachine.empty())
    host = std::move(hostOfThisMachine);
  host.resize(std::min(host.size(), max));
  return copyText(host, buffer, max + 1);
}

bool LQPlatformInfo::getClientNameFromHostName(const std::string& host, std::string& out) {
  out.clear();
  return !host.empty() &&
         getString(std::string(lqsettings::kHostsKey) + "/" + host, lqsettings::kClientOfHost, out);
}

unsigned LQPlatformInfo::getLQPlatformType() {
  std::int64_t bits = 0;
  if (!getNumber(lqsettings::kPlatformType.key, lqsettings::kPlatformType.name, bits)) return kPlatformUnix;
  const bool plausible = bits >= 0 && bits <= std::numeric_limits<unsigned>::max();
  return plausible ? static_cast<unsigned>(bits) : kPlatformUnix;
}
