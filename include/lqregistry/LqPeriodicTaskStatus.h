// LqPeriodicTaskStatus: what a periodic task and the host that schedules it tell each other.
//
// The host owns the object and hands it to the task's callbacks; the task only sets, the host only reads.
// Both may do so from different threads. A real host provides the same two setters.
#pragma once

#include <atomic>
#include <cstdint>

class LqPeriodicTaskStatus {
 public:
  // Seconds between two runs; takes effect from the next scheduling.
  void setFrequency(std::uint32_t seconds) { frequency_ = seconds; }
  std::uint32_t getFrequency() const { return frequency_; }

  // Seconds since the epoch; 0 until a run was recorded.
  void setLastRunTime(long seconds) { lastRunTime_ = seconds; }
  long getLastRunTime() const { return lastRunTime_; }

 private:
  std::atomic<std::uint32_t> frequency_{0};
  std::atomic<long> lastRunTime_{0};
};
