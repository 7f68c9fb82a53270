#include "lqhost/rollback/clock.h"

#include <ctime>
#include <utility>

#include "lqregistry/FXFile.h"

namespace host {

namespace {

constexpr std::int64_t kMillis = 1000;
constexpr std::int64_t kNanosPerMilli = 1'000'000;

std::function<Moment()> replaced;  // the machine's clocks while it is empty

std::string bootId() {
  std::string text;
  // Without one every start looks like the same: then the time since it decides, which begins anew at 0.
  static_cast<void>(FXFile::ReadContents("/proc/sys/kernel/random/boot_id", text));
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

}  // namespace

Moment thisMoment() {
  if (replaced) return replaced();
  static const std::string boot = bootId();
  timespec since{};
  ::clock_gettime(CLOCK_BOOTTIME, &since);
  return {boot, since.tv_sec * kMillis + since.tv_nsec / kNanosPerMilli, std::time(nullptr)};
}

void useClock(std::function<Moment()> clock) {
  replaced = std::move(clock);
}

}  // namespace host
