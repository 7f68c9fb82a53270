#include "lqhost/rollback/standing_memory.h"

#include <algorithm>

#include "lqhost/pass/registry_writes.h"
#include "lqhost/rollback/history.h"
#include "lqhost/rollback/place_value.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/UtcText.h"

namespace host {

namespace {

constexpr const char* kTag = "host::ChangeMemory";

std::string waitingReason(const ChangeMemory& memory) {
  if (memory.reachBy.isSet()) return "the way to the server was changed, and it has not been reached since";
  return memory.confirmBy.isSet() ? "the server has to confirm it in time"
                                  : "its modules have to find it good";
}

HostReport::Memory stateOf(const char* word, const ChangeMemory& memory, const std::string& reason) {
  HostReport::Memory state;
  state.state = std::string(word);
  state.reason = reason.substr(0, HostReport::kMaxTextBytes);
  state.since = memory.since.get();
  state.digest = memory.digest.get();
  state.places = static_cast<std::int64_t>(memory.places->size());
  state.localChanges = memory.localChanges.get();
  return state;
}

}  // namespace

HostReport::Memory memoryState() {
  if (const auto going = loadMemory(MemoryFile::kGoing)) return stateOf("goingBack", *going, going->reason);
  std::optional<ChangeMemory> before = loadMemory(MemoryFile::kBefore);
  if (before && before->isWaiting()) {
    HostReport::Memory state = stateOf("waiting", *before, waitingReason(*before));
    bool isMoved = false;
    if (const auto left = secondsLeft(*before, isMoved)) state.deadline = thisMoment().wall + *left;
    return state;
  }
  if (const auto gone = loadMemory(MemoryFile::kGone)) return stateOf("goneBack", *gone, gone->reason);
  if (before) return stateOf("kept", *before, "");
  HostReport::Memory none;
  none.state = std::string("none");
  return none;
}

std::string memoryText(const HostReport::Memory& memory) {
  const std::string places =
      std::to_string(memory.places) + " places changed " + lqtext::utcText(memory.since);
  if (memory.state.get() == "kept") return places + "; `lqhost rollback` goes back";
  if (memory.state.get() == "waiting")
    return places + " wait: " + memory.reason.get() +
           (memory.deadline == 0 ? "" : "; goes back " + lqtext::utcText(memory.deadline));
  if (memory.state.get() == "goingBack") return "going back from " + places + ": " + memory.reason.get();
  if (memory.state.get() == "goneBack")
    return "went back from " + places + ": " + memory.reason.get() +
           "; not applied again until the server sets something else, or `lqhost rollback --forget`";
  return {};
}

std::optional<std::int64_t> secondsUntilGoingBack() {
  if (isThere(MemoryFile::kGoing)) return 0;
  if (!isWaiting()) return std::nullopt;
  const MemoryLock lock;
  std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory) return std::nullopt;
  bool isMoved = false;
  const std::optional<std::int64_t> left = secondsLeft(*memory, isMoved);
  if (isMoved) {
    if (const CWmError error = saveMemory(MemoryFile::kBefore, *memory); error.IsError())
      ObEvent().Error(kTag, "The deadline begins anew with the next start: %s", error.AsString());
  }
  return left;
}

std::string overdueReason() {
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (memory && memory->reachBy.isSet()) {
    bool isMoved = false;
    MemoryDeadline deadline = memory->reachBy;
    if (secondsLeft(deadline, isMoved) == 0)
      return "the server was not reached after the way to it was changed";
  }
  return "the server has not confirmed it in time";
}

bool isWayBackUnproven() {
  if (!isWaiting()) return false;
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  return memory && memory->reachBy.isSet();
}

bool isKept(const std::string& digest) {
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  return memory && !digest.empty() && memory->digest.get() == digest;
}

bool confirmChanges(const std::string& digest) {
  const MemoryLock lock;
  if (!isWaiting()) return false;
  std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory || memory->hasToBeConfirmed != 1 || digest.empty() || memory->digest.get() != digest)
    return false;
  memory->hasToBeConfirmed.clear();
  memory->confirmBy.clear();
  if (const CWmError error = saveMemory(MemoryFile::kBefore, *memory); error.IsError()) {
    ObEvent().Error(kTag, "That the server has confirmed could not be noted: %s", error.AsString());
    return false;
  }
  if (!memory->isWaiting()) noteInHistory("confirmed", *memory, "by the server");
  return true;
}

bool hasToBeConfirmed(const std::string& keyPath, const std::string& valueName) {
  if (!isWaiting()) return false;
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory || memory->hasToBeConfirmed != 1) return false;
  const std::string place = placeOf(keyPath, valueName);
  return std::any_of(memory->places->begin(), memory->places->end(), [&place](const MemoryPlace& changed) {
    return placeOf(changed.keyPath, changed.valueName) == place;
  });
}

bool forgetGoneBack() {
  const MemoryLock lock;
  const std::optional<ChangeMemory> gone = loadMemory(MemoryFile::kGone);
  const bool wasThere = isThere(MemoryFile::kGone);
  if (removeMemory(MemoryFile::kGone).IsError()) return false;
  if (gone) noteInHistory("forgotten", *gone, "may be applied again");
  return wasThere;
}

void forgetChanges() {
  const MemoryLock lock;
  for (const MemoryFile file : {MemoryFile::kBefore, MemoryFile::kGoing, MemoryFile::kGone})
    if (const CWmError error = removeMemory(file); error.IsError())
      ObEvent().Error(kTag, "What another client had before stays: %s", error.AsString());
}

void dropWhatNeverHappened() {
  const MemoryLock lock;
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory) return;
  const lqregistry::ReadSnapshot still;
  LQPlatformInfo registry;
  const PlaceList& places = memory->places;
  const bool isAsBefore = std::all_of(places.begin(), places.end(), [&registry](const MemoryPlace& place) {
    const PlaceValue now = readPlace(registry, place.path, place.name);
    return place.wasBefore(now) && (now || isAbsent(registry));
  });
  if (!isAsBefore) return;
  if (const CWmError error = removeMemory(MemoryFile::kBefore); error.IsError())
    ObEvent().Error(kTag, "A memory of no changes stays: %s", error.AsString());
}

}  // namespace host
