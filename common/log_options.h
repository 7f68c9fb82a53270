// Where a program's log goes, as its command line says.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/ObDebug.h"

namespace programs {

inline constexpr int kMaxLogLevel = 10;

struct LogOptions {
  int level = kLqLogDefaultLevel;  // 0 to kMaxLogLevel
  std::string file;                // empty: standard error
};

// Makes the process's log follow the options.
CWmError configureLog(const LogOptions& options);

}  // namespace programs
