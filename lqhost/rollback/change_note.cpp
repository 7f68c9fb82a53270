#include "lqhost/rollback/change_note.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>  // explicit_bzero
#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "lqhost/instance.h"
#include "lqhost/rollback/history.h"
#include "lqhost/rollback/place_value.h"
#include "lqhost/rollback/prediction.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObDebug.h"
#include "records/batch_digest.h"

namespace host {

namespace {

constexpr const char* kTag = "host::ChangeNote";

std::atomic<std::int64_t> wayBackLimit{kWayBackLimit};

using PlaceId = std::pair<std::string, std::string>;

PlaceId idOf(const MemoryPlace& place) {
  return {place.path, place.name};
}

std::string digestOf(const OBGui::KeyList& keys) {
  std::string hex;
  std::string key;
  LQPlatformInfo().getString(lqsettings::kSessionKey.key, lqsettings::kSessionKey.name, hex);
  std::string digest = sessionKeyFromHex(hex, key) ? batchDigest(keys, key) : "";
  explicit_bzero(hex.data(), hex.size());
  explicit_bzero(key.data(), key.size());
  return digest;
}

bool hasWayBack(const PlaceList& places) {
  return std::any_of(places.begin(), places.end(), [](const auto& place) { return place.isWayBack == 1; });
}

// The first change of a place decides what was before, the last one what is wanted.
void merge(PlaceList& places, const PlaceList& changes) {
  std::map<PlaceId, std::size_t> known;
  for (std::size_t i = 0; i < places.size(); ++i) known[idOf(places[i])] = i;
  for (const MemoryPlace& change : changes) {
    const auto found = known.find(idOf(change));
    if (found == known.end()) {
      places.push_back(change);
      continue;
    }
    MemoryPlace& place = places[found->second];
    const PlaceValue before = MemoryPlace::valueOf(place.before);
    place = change;
    MemoryPlace::setTo(place.before, before);
  }
}

void logError(const char* what, const CWmError& error) {
  if (error.IsError()) ObEvent().Error(kTag, "%s: %s", what, error.AsString());
}

}  // namespace

void useWayBackLimit(std::int64_t seconds) {
  wayBackLimit = seconds;
}

ChangeNote::ChangeNote(BatchKind kind, PassTerms terms, const std::optional<UnsettledNote>& unsettled)
    : kind_(kind), terms_(std::move(terms)) {
  if (unsettled) cacheBehind_ = unsettled->why;
}

std::string ChangeNote::arrive(const OBGui::KeyList& keys) {
  const MemoryLock lock;
  if (isThere(MemoryFile::kGoing)) {
    mayComeAgain_ = true;
    return "this machine is going back from an earlier batch, and has not ended that";
  }
  std::optional<ChangeMemory> waiting;
  if (isWaiting()) waiting = loadMemory(MemoryFile::kBefore);
  if (waiting && kind_ == BatchKind::kWhole) {
    proveWayBack(*waiting);
    if (!waiting->isWaiting()) waiting.reset();  // confirmed: the next changes start anew
  }
  PlaceList changes = predictChanges(keys);
  std::string reason = whyHeldBack(changes);
  if (!reason.empty()) return reason;
  if (!changes.empty()) {
    const bool isNew = !waiting;
    reason = keep(isNew ? begun() : std::move(*waiting), isNew, keys, std::move(changes));
  }
  isAccepted_ = reason.empty();
  return reason;
}

// What came over a session that was begun after the change shows that the way is good; for a host that runs.
// One that is started anew needs the base directory as well, or it could not even begin.
void ChangeNote::proveWayBack(ChangeMemory& memory) const {
  const bool isLater = memory.boot.get() != began_.boot || began_.sinceBoot >= memory.noted;
  const bool canBegin = ::access(baseDirectory().c_str(), W_OK | X_OK) == 0;
  if (!memory.reachBy.isSet() || !isLater || !canBegin) return;
  memory.reachBy.clear();
  logError("That the server was reached could not be noted", saveMemory(MemoryFile::kBefore, memory));
  if (!memory.isWaiting()) noteInHistory("confirmed", memory, "the server was reached");
}

std::string ChangeNote::whyHeldBack(const PlaceList& changes) {
  if (terms_.isReleased || changes.empty()) return {};
  const std::optional<ChangeMemory> gone = loadMemory(MemoryFile::kGone);
  if (!gone) return {};
  std::map<PlaceId, PlaceValue> refused;
  for (const MemoryPlace& place : gone->places.get())
    if (!place.isKeyItself()) refused[idOf(place)] = MemoryPlace::valueOf(place.wanted);
  for (const MemoryPlace& change : changes) {
    const auto found = refused.find(idOf(change));
    if (found == refused.end() || found->second != MemoryPlace::valueOf(change.wanted)) continue;
    return "this machine went back from a batch that set " + change.path.get() + " " + change.name.get() +
           " like that: " + gone->reason.get();
  }
  return {};
}

ChangeMemory ChangeNote::begun() const {
  ChangeMemory memory;
  std::string cache;
  // A copy: another link to the file would change what tells that it was replaced.
  if (!FXFile::ReadContents(pathInBase(kSettingsCacheFile), cache).IsError()) memory.cache = std::move(cache);
  if (cacheBehind_) memory.cacheBehind = static_cast<std::int64_t>(*cacheBehind_) + 1;
  return memory;
}

std::string ChangeNote::keep(ChangeMemory memory, bool isNew, const OBGui::KeyList& keys, PlaceList changes) {
  if (isNew) former_ = loadMemory(MemoryFile::kBefore);
  hasChangedWayBack_ = hasWayBack(changes);
  merge(memory.places.edit(), changes);
  memory.digest = digestOf(keys);
  const Moment now = thisMoment();
  memory.since = now.wall;
  memory.boot = now.boot;
  memory.noted = now.sinceBoot;
  bool isMoved = false;
  if (terms_.demand != HostReport::kDemandNothing) {
    memory.hasToBeConfirmed = 1;
    const bool isSooner =
        terms_.demand >= 0 &&
        (!memory.confirmBy.isSet() || secondsLeft(memory.confirmBy.edit(), isMoved) > terms_.demand);
    if (isSooner) memory.confirmBy = deadlineIn(terms_.demand);
  }
  const bool isLast = !memory.reachBy.isSet() || secondsLeft(memory.reachBy.edit(), isMoved) > wayBackLimit;
  if (hasChangedWayBack_ && isLast) memory.reachBy = deadlineIn(wayBackLimit);
  error_ = saveMemory(MemoryFile::kBefore, memory);
  if (!error_.IsError()) {
    changes_ = std::move(changes);
    return {};
  }
  logError("What was before cannot be kept", error_);
  if (memory.isWaiting()) {
    mayComeAgain_ = true;
    return std::string("it has to be possible to go back from this batch, and what is now cannot be kept: ") +
           error_.AsString();
  }
  // What is kept of earlier changes would be taken for what was before these.
  logError("What was before earlier changes stays", removeMemory(MemoryFile::kBefore));
  return {};
}

void ChangeNote::setHeld(ChangeMemory& memory) const {
  std::map<PlaceId, bool> touched;
  for (const MemoryPlace& change : changes_) touched[idOf(change)] = true;
  const lqregistry::ReadSnapshot still;
  LQPlatformInfo registry;
  std::erase_if(memory.places.edit(), [&](MemoryPlace& place) {
    if (!touched.contains(idOf(place))) return false;
    const PlaceValue now = readPlace(registry, place.path, place.name);
    if (!now && !isAbsent(registry)) return false;
    if (place.wasBefore(now)) return true;  // nothing to go back from
    if (now != MemoryPlace::valueOf(place.wanted)) {
      place.isHeldOther = 1;
      MemoryPlace::setTo(place.held, now);
    }
    return false;
  });
}

void ChangeNote::finish() {
  const MemoryLock lock;
  if (!isAccepted_) return;
  if (kind_ == BatchKind::kWhole && isThere(MemoryFile::kGone)) {
    // The server wants something else now, or has said that it may be.
    logError("What was gone back from stays noted", removeMemory(MemoryFile::kGone));
  }
  std::optional<ChangeMemory> memory;
  if (!changes_.empty()) memory = loadMemory(MemoryFile::kBefore);
  if (!memory) return;
  const ChangeMemory noted = *memory;
  setHeld(*memory);
  const bool isNothingLeft = memory->places->empty();
  if (isNothingLeft && !former_) {
    logError("A memory of no changes stays", removeMemory(MemoryFile::kBefore));
    hasChangedWayBack_ = false;
    return;
  }
  if (isNothingLeft) memory = former_;
  hasChangedWayBack_ = hasChangedWayBack_ && hasWayBack(memory->places);
  if (memory->reachBy.isSet() && !hasWayBack(memory->places)) memory->reachBy.clear();
  if (!memory->equals(noted)) logError("The worst is assumed", saveMemory(MemoryFile::kBefore, *memory));
  if (!isNothingLeft)
    noteInHistory(memory->isWaiting() ? "waits" : "kept", *memory,
                  memory->reachBy.isSet() ? "the server has to be reached again" : "");
}

RefreshNote::RefreshNote() {
  const MemoryLock lock;
  const std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory) return;
  const lqregistry::ReadSnapshot still;
  LQPlatformInfo registry;
  ours_ = memory->places;
  std::erase_if(*ours_, [&registry](const MemoryPlace& place) {
    return !place.isOurs(readPlace(registry, place.path, place.name));
  });
}

void RefreshNote::finish() {
  if (!ours_) return;
  const MemoryLock lock;
  std::optional<ChangeMemory> memory = loadMemory(MemoryFile::kBefore);
  if (!memory) return;
  std::map<PlaceId, bool> ours;
  for (const MemoryPlace& place : *ours_) ours[idOf(place)] = true;
  bool isChanged = false;
  {
    const lqregistry::ReadSnapshot still;
    LQPlatformInfo registry;
    for (MemoryPlace& place : memory->places.edit()) {
      const PlaceValue now = readPlace(registry, place.path, place.name);
      const bool isKnown = now || isAbsent(registry);
      if (!isKnown || !ours.contains(idOf(place)) || place.isOurs(now) || place.wasBefore(now)) continue;
      place.isHeldOther = 1;
      MemoryPlace::setTo(place.held, now);
      isChanged = true;
    }
  }
  if (isChanged) logError("What a refresh did is not noted", saveMemory(MemoryFile::kBefore, *memory));
}

}  // namespace host
