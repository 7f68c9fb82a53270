// What the host keeps of how things were before the newest changes: for each place of the registry that a
// pass or a push changed the value of before, and the settings cache of before. Three files beside the
// registry, mode 0600, each replaced as a whole; the base directory is no place for them, because it may be
// what changes.
//
//   <registry>.<instance>.before   the newest changes: kept, or waiting to be confirmed
//   <registry>.<instance>.going    the same, while the machine goes back to it
//   <registry>.<instance>.gone     what it went back from, which is not applied again
//
// Functions that load and save want MemoryLock to be held, unless all that somebody wants is to look.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/file_lock.h"
#include "lqhost/rollback/clock.h"
#include "lqregistry/CNMessageBase.h"
#include "lqregistry/CWmError.h"

namespace host {

// What a place holds, as one text (place_value.h); nothing when it is absent.
using PlaceValue = std::optional<std::string>;

// Of these classes' own namespace: they never leave the machine.
inline constexpr int kMemoryNamespace = 15;

struct MemoryPlace : MessageClass<MemoryPlace, kMemoryNamespace, 1> {
  static constexpr const char* kClassName = "Host.Place";
  Field<std::string, 1, 1> path;       // of the key, from the registry's root on
  Field<std::string, 2, 2> name;       // of the value; empty for the key itself
  Field<std::string, 3, 3> keyPath;    // as the server spells them, for callbacks
  Field<std::string, 4, 4> valueName;  // likewise
  Field<std::string, 5, 5> valueType;  // the server's type word
  Field<std::int64_t, 6, 6> isWayBack;
  Field<std::string, 7, 7> before;  // not set: it was absent; likewise the next two
  Field<std::string, 8, 8> wanted;  // by the batch
  Field<std::string, 9, 9> held;    // found after it, where that is not what was wanted
  Field<std::int64_t, 10, 10> isHeldOther;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&MemoryPlace::path>("p"),        field<&MemoryPlace::name>("n"),
        field<&MemoryPlace::keyPath>("k"),     field<&MemoryPlace::valueName>("v"),
        field<&MemoryPlace::valueType>("t"),   field<&MemoryPlace::isWayBack>("way"),
        field<&MemoryPlace::before>("before"), field<&MemoryPlace::wanted>("wanted"),
        field<&MemoryPlace::held>("held"),     field<&MemoryPlace::isHeldOther>("other")};
    return list;
  }

  bool isKeyItself() const { return name->empty(); }
  bool wasBefore(const PlaceValue& now) const { return now == valueOf(before); }
  // Whether what is there now is of the host's own making.
  bool isOurs(const PlaceValue& now) const {
    return now == valueOf(wanted) || (isHeldOther == 1 && now == valueOf(held));
  }
  template <class F>
  static PlaceValue valueOf(const F& some) {
    return some.isSet() ? PlaceValue(some.get()) : std::nullopt;
  }
  template <class F>
  static void setTo(F& some, const PlaceValue& value) {
    if (value) {
      some = *value;
    } else {
      some.clear();
    }
  }
};
using PlaceList = std::vector<MemoryPlace>;

struct MemoryDeadline : MessageClass<MemoryDeadline, kMemoryNamespace, 2> {
  static constexpr const char* kClassName = "Host.Deadline";
  Field<std::string, 1, 1> boot;
  Field<std::int64_t, 2, 2> at;     // milliseconds since that start of the machine
  Field<std::int64_t, 3, 3> wall;   // seconds since the epoch
  Field<std::int64_t, 4, 4> limit;  // seconds, from which it was made

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&MemoryDeadline::boot>("boot"), field<&MemoryDeadline::at>("at"),
        field<&MemoryDeadline::wall>("wall"), field<&MemoryDeadline::limit>("limit")};
    return list;
  }
};

struct ChangeMemory : MessageClass<ChangeMemory, kMemoryNamespace, 3> {
  static constexpr const char* kClassName = "Host.Memory";
  Field<std::int64_t, 1, 1> since;  // of the newest change; seconds since the epoch
  Field<std::string, 2, 2> digest;  // of its batch
  Field<std::string, 3, 3> reason;  // why it goes, or went, back
  Field<std::int64_t, 4, 4> hasToBeConfirmed;
  Field<MemoryDeadline, 5, 5> confirmBy;     // not set: without a limit
  Field<MemoryDeadline, 6, 6> reachBy;       // not set: the way to the server has not changed, or holds
  Field<std::string, 7, 7> boot;             // when the newest change was noted
  Field<std::int64_t, 8, 8> noted;           // likewise, milliseconds since the start of the machine
  Field<std::string, 9, 9> cache;            // the settings cache of before; not set: there was none
  Field<std::int64_t, 10, 10> cacheBehind;   // why it did not hold what the registry did, counted from 1
  Field<std::int64_t, 11, 11> localChanges;  // places that were left alone when it went back
  Field<PlaceList, 12, 12> places;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&ChangeMemory::since>("since"),
                                         field<&ChangeMemory::digest>("digest"),
                                         field<&ChangeMemory::reason>("reason"),
                                         field<&ChangeMemory::hasToBeConfirmed>("confirm"),
                                         field<&ChangeMemory::confirmBy>("confirmBy"),
                                         field<&ChangeMemory::reachBy>("reachBy"),
                                         field<&ChangeMemory::boot>("boot"),
                                         field<&ChangeMemory::noted>("noted"),
                                         field<&ChangeMemory::cache>("cache"),
                                         field<&ChangeMemory::cacheBehind>("cacheBehind"),
                                         field<&ChangeMemory::localChanges>("localChanges"),
                                         field<&ChangeMemory::places>("places")};
    return list;
  }

  bool isWaiting() const { return hasToBeConfirmed == 1 || reachBy.isSet(); }
};

enum class MemoryFile { kBefore, kGoing, kGone };

// Between threads and processes; for one read-modify-write, or for a whole going back.
class MemoryLock {
 public:
  MemoryLock();

 private:
  std::lock_guard<std::mutex> inProcess_;
  programs::FileLock between_;
};

std::string memoryPath(MemoryFile which);
bool isThere(MemoryFile which);
// Whether the newest changes wait to be confirmed; reads one line.
bool isWaiting();

// Nothing when there is none, or it cannot be understood; the log tells of that.
std::optional<ChangeMemory> loadMemory(MemoryFile which);
// Replaced and on disk, or unchanged.
CWmError saveMemory(MemoryFile which, const ChangeMemory& memory);
CWmError removeMemory(MemoryFile which);
// Takes the place of the other, which needs no room on the disk.
CWmError renameMemory(MemoryFile from, MemoryFile to);

MemoryDeadline deadlineIn(std::int64_t seconds);
// Seconds that are left. After a restart of the machine the wall clock decides, within the limit, and the
// deadline is counted from this start on: then `isMoved` is set, and whoever can saves it.
std::int64_t secondsLeft(MemoryDeadline& deadline, bool& isMoved);
// The deadline that comes first; nothing when there is none.
std::optional<std::int64_t> secondsLeft(ChangeMemory& memory, bool& isMoved);

}  // namespace host
