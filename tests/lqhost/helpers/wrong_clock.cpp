// Loaded before the C library, makes the clock of a process go wrong by WRONG_CLOCK_BY seconds. Only the time
// of day; what measures how long something takes goes on as before.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace {

// Without a call that a sanitizer might replace before it is ready itself.
std::time_t error() {
  constexpr int kBase = 10;
  const char* digit = std::getenv("WRONG_CLOCK_BY");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (digit == nullptr) return 0;
  const bool isBehind = *digit == '-';
  if (isBehind) ++digit;
  std::time_t seconds = 0;
  for (; *digit != '\0'; ++digit) seconds = seconds * kBase + (*digit - '0');
  return isBehind ? -seconds : seconds;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = ::syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) now->tv_sec += error();
  return static_cast<int>(result);
}

__attribute__((visibility("default"))) int gettimeofday(timeval* now, void* /*zone*/) noexcept {
  constexpr long kNanosecondsEach = 1000;
  timespec precise{};
  const int result = clock_gettime(CLOCK_REALTIME, &precise);
  now->tv_sec = precise.tv_sec;
  now->tv_usec = precise.tv_nsec / kNanosecondsEach;
  return result;
}

__attribute__((visibility("default"))) std::time_t time(std::time_t* now) noexcept {
  timespec precise{};
  clock_gettime(CLOCK_REALTIME, &precise);
  if (now != nullptr) *now = precise.tv_sec;
  return precise.tv_sec;
}
}
