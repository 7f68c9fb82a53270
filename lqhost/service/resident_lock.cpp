#include "lqhost/service/resident_lock.h"

#include "common/file_lock.h"
#include "lqhost/instance.h"

namespace host {

namespace {

constexpr const char* kResidentLock = "lqhost.lock";

}  // namespace

CWmError becomeResident() {
  static programs::FileLock lock;
  if (!lock.isHeld()) lock = programs::FileLock::tryFor(pathInBase(kResidentLock));
  if (lock.isHeld()) return {};
  if (lock.isHeldElsewhere())
    return {kLqErrFile, "instance " + instanceName() + " has a resident host already"};
  return {kLqErrFile, pathInBase(kResidentLock) + " cannot be written, so nobody could find this host"};
}

bool isHostResident() {
  return programs::FileLock::isTaken(pathInBase(kResidentLock));
}

}  // namespace host
