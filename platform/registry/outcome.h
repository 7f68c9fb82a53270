// What the registry's rooms tell each other of success and failure, in place of CWmError: LQPlatformInfo
// hands its callers these codes.
#pragma once

#include <string>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqWriteWatch.h"

namespace lqregistry {

// What an operation came to: a kReg code and, unless it is kRegOk, the reason in words (without file, key and
// value, which the caller adds).
struct [[nodiscard]] Outcome {
  int code = kRegOk;
  std::string reason;
  bool locked = false;                   // kRegUnavailable because another process held its lock for too long
  WriteFault fault = WriteFault::kNone;  // which kind of kRegUnavailable, as far as it is known

  bool ok() const { return code == kRegOk; }
};

}  // namespace lqregistry
