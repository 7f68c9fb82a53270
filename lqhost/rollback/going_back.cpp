#include "lqhost/rollback/going_back.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

#include "lqhost/instance.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/rollback/history.h"
#include "lqhost/rollback/place_value.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/ObDebug.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

namespace {

constexpr const char* kTag = "host::goBack";

GoingBackStep called = nullptr;

void step(const char* name) {
  if (called != nullptr) called(name);
}

// Keys that come again, from the top; values; keys that go, from the bottom: a value finds its key, and a key
// that goes is empty.
void sortForWriting(PlaceList& places) {
  const auto rank = [](const MemoryPlace& place) {
    if (!place.isKeyItself()) return 1;
    return place.before.isSet() ? 0 : 2;
  };
  std::stable_sort(places.begin(), places.end(), [&rank](const MemoryPlace& a, const MemoryPlace& b) {
    if (rank(a) != rank(b)) return rank(a) < rank(b);
    return rank(a) == 2 ? a.path.get() > b.path.get() : a.path.get() < b.path.get();
  });
}

CWmError restoreRegistry(const PlaceList& places, WentBack& result) {
  lqregistry::WriteBatch batch;
  batch.lock();
  LQPlatformInfo registry;
  for (const MemoryPlace& place : places) {
    const PlaceValue now = readPlace(registry, place.path, place.name);
    if (!now && !isAbsent(registry)) {
      CWmError error{kLqErrFile, registry.getRegErrorText()};
      batch.abandon();
      return error;
    }
    if (!place.wasBefore(now)) {
      // A key is not a value that somebody could have changed: one that is used is left, by writePlace.
      if (!place.isKeyItself() && !place.isOurs(now)) {
        result.local.push_back(place);
        continue;
      }
      if (!writePlace(registry, place, MemoryPlace::valueOf(place.before))) {
        CWmError error{kLqErrFile, registry.getRegErrorText()};
        batch.abandon();
        return error;
      }
    }
    if (!place.isKeyItself()) result.restored.push_back(place);
  }
  step("written");
  if (batch.commit()) return {};
  return {kLqErrFile, lqregistry::File() + ": what was before could not be written"};
}

// A refresh would put newer values back from the cache of now.
bool restoreCache(const ChangeMemory& memory) {
  const std::string path = pathInBase(kSettingsCacheFile);
  CWmError error;
  if (memory.cache.isSet()) {
    error = FXFile::ReplaceContents(path, memory.cache.get());
    if (!error.IsError()) return true;
    ObEvent().Error(kTag, "The settings cache of before cannot be put back, and none stays: %s",
                    error.AsString());
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    ObEvent().Error(kTag, "%s cannot be removed: %s", path.c_str(),
                    std::system_category().message(errno).c_str());
  return !memory.cache.isSet();
}

void settleNote(const ChangeMemory& memory, bool isCacheRestored) {
  UnsettledWork note(Unsettled::kPass);
  if (!isCacheRestored) return note.leave(Unsettled::kCacheDropped);
  if (memory.cacheBehind == 0) return note.settle();
  const auto why = static_cast<Unsettled>(memory.cacheBehind - 1);
  // A pass that was killed is none that is under way, as a note of this process would say.
  note.leave(why == Unsettled::kPass ? Unsettled::kCacheLost : why);
}

// As the server would have sent it.
OBGui::RegistryKeyInfo recordOf(const MemoryPlace& place) {
  OBGui::RegistryKeyInfo key;
  key.keyPath = place.keyPath.get();
  key.valueName = place.valueName.get();
  key.deleteFlag = place.before.isSet() ? 0 : 1;
  key.enabledFlag = 1;
  const bool isProtectedType = place.valueType.get() == ENCRYPTEDTYPE;
  key.valueType =
      isProtectedType || place.valueType->empty() ? std::string(STRINGTYPE) : place.valueType.get();
  if (!place.before.isSet()) return key;
  const std::string data = dataOf(place.before);
  pstring secret;
  if (data.starts_with(kProtectedPrefix) && pstring::fromStoredText(data, secret)) {
    key.valueType = std::string(ENCRYPTEDTYPE);
    key.value = std::string(kHiddenSecret);
    key.encryptedValue = std::move(secret);
  } else {
    key.value = data;
  }
  return key;
}

void tell(const PlaceList& restored) {
  const LqRegistryChangeMgr& changes = *LqRegistryChangeMgr::GetInstance();
  const LqThreadPool::HandOver together(LqRegistryChangeMgr::callBackThreadPool);
  for (const MemoryPlace& place : restored)
    if (changes.IsCallBackRegistered(place.keyPath, place.valueName))
      changes.HandleCallbackForRegistry(recordOf(place));
}

// What must not be applied again, and nothing of what was before.
ChangeMemory goneOf(ChangeMemory memory) {
  memory.cache.clear();
  for (MemoryPlace& place : memory.places.edit()) {
    place.before.clear();
    place.held.clear();
  }
  return memory;
}

// Takes up what was begun, or begins.
CWmError begin(const std::string& reason, ChangeMemory& memory) {
  if (!isThere(MemoryFile::kGoing)) {
    std::optional<ChangeMemory> before = loadMemory(MemoryFile::kBefore);
    if (!before) return {kLqErrFile, "nothing is kept that could be gone back to"};
    before->reason = reason;
    // On a full disk the reason is lost with a kill, and nothing else.
    static_cast<void>(saveMemory(MemoryFile::kBefore, *before));
    step("begun");
    CWmError error = renameMemory(MemoryFile::kBefore, MemoryFile::kGoing);
    if (error.IsError()) return error;
    memory = std::move(*before);
    return {};
  }
  std::optional<ChangeMemory> going = loadMemory(MemoryFile::kGoing);
  if (!going) {
    // It would hold back every batch for ever.
    static_cast<void>(removeMemory(MemoryFile::kGoing));
    return {kLqErrFile,
            memoryPath(MemoryFile::kGoing) + " could not be read and is gone; the registry stays as it is"};
  }
  memory = std::move(*going);
  return {};
}

// The file that says that it goes back is the last to go.
CWmError end(const ChangeMemory& memory) {
  if (saveMemory(MemoryFile::kGone, goneOf(memory)).IsError())
    return renameMemory(MemoryFile::kGoing, MemoryFile::kGone);
  step("noted");
  return removeMemory(MemoryFile::kGoing);
}

}  // namespace

void onGoingBack(GoingBackStep call) {
  called = call;
}

WentBack goBack(const std::string& reason) {
  const MemoryLock lock;
  WentBack result;
  ChangeMemory memory;
  result.error = begin(reason, memory);
  if (result.error.IsError()) return result;
  step("going");
  sortForWriting(memory.places.edit());
  result.error = restoreRegistry(memory.places, result);
  if (result.error.IsError()) {
    ObEvent().Error(kTag, "Going back is tried again: %s", result.error.AsString());
    return result;
  }
  step("restored");
  result.isCacheRestored = restoreCache(memory);
  step("cached");
  settleNote(memory, result.isCacheRestored);
  tell(result.restored);
  step("told");
  memory.localChanges = static_cast<std::int64_t>(result.local.size());
  ObEvent().Error(kTag,
                  "Went back from a batch: %s; %zu values restored, %zu left as somebody had changed them",
                  memory.reason->c_str(), result.restored.size(), result.local.size());
  noteInHistory("gone back", memory, memory.reason);
  step("remembered");
  result.error = end(memory);
  return result;
}

}  // namespace host
