// ObDebug and ObEvent: the platform's loggers.
//
// Three kinds of call, all printf-style and all with a tag (the calling function's name as text):
//   Error     something failed that a person should see; always written
//   Debug     a plain line, at the default level (kLqLogDefaultLevel)
//   DebugLvl  a line at a level of its own: 0 always shown, 2 milestones, 3 and 4 verbose, 7 task switches,
//             10 per-key detail; in a second form with a context number, which is written along
// A line above the process's threshold costs one comparison: nothing is formatted.
//
// ObDebug belongs to one object for its lifetime, ObEvent to a function or a class; both write to the same
// process-wide log, and any thread may use any logger. Where the lines go is set in ObLog.h. A real platform
// library provides the same calls over its own log.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/LqExport.h"

// The level of Debug lines, and of the threshold unless the host sets another.
inline constexpr int kLqLogDefaultLevel = 1;

// Levels in use, and the context of lines that the platform's own tools leave without one.
inline constexpr int kLogAlways = 0;
inline constexpr int kLogMilestone = 2;
inline constexpr int kLogVerbose = 4;
inline constexpr int kLogDetail = 10;
inline constexpr std::int64_t kLogContext = -123456;

class LQ_EXPORT ObLogger {
 public:
  void Error(const char* tag, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  void Debug(const char* tag, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  void DebugLvl(int level, const char* tag, const char* format, ...) const
      __attribute__((format(printf, 4, 5)));
  void DebugLvl(int level, std::int64_t context, const char* tag, const char* format, ...) const
      __attribute__((format(printf, 5, 6)));

 protected:
  ObLogger() = default;
  ~ObLogger() = default;
  std::uint32_t logId_ = 0;
};

class LQ_EXPORT ObDebug : public ObLogger {
 public:
  // `logId` is the numeric log identifier written with each line. The other three arguments select features
  // of the platform's log that this layer does not have; they are accepted so that callers stay as they are.
  void Initialize(std::uint32_t logId, int, bool, const std::string&) { logId_ = logId; }
};

class LQ_EXPORT ObEvent : public ObLogger {};
