// What lqhost's exit codes mean, for scripts, and which outcome ends with which; the help text lists them.
//
// A pass can deserve several; it ends with the one that stands first in: 11, 1, 5, 4, 7, 10, 8, 9 (see
// PassResult::outcome). `lqhost status` goes by 3, 7, 10, 8, 6, 11, 9, 1: worseOf.
#pragma once

#include "common/command_line.h"
#include "lqhost/pass/pass_outcome.h"

namespace host {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;                    // no batch was received
inline constexpr int kExitUsage = programs::kExitUsage;  // wrong command line, or an unusable join file
inline constexpr int kExitNotJoined = 3;  // this instance has not joined, or the registry cannot be used
inline constexpr int kExitPartly = 4;     // not everything could be applied, or uploaded
inline constexpr int kExitSkipped = 5;    // synchronisation is switched off, or joining is not finished
inline constexpr int kExitDrift = 6;      // values differ from what the cache says they should be
inline constexpr int kExitCacheLost = 7;  // applied, but the settings cache could not be written
inline constexpr int kExitCacheKept = 8;  // applied, but the reply was shorter than the cache, which stays
inline constexpr int kExitUnacknowledged = 9;  // applied, but the server has not recorded that
inline constexpr int kExitHeldBack = 11;  // a batch was not applied, since this machine went back from it
inline constexpr int kExitCacheUnreadable = 10;  // applied, but a cache that cannot be read is not replaced

// What a synchronisation or a refresh with this outcome ends with.
[[nodiscard]] int exitCodeOf(RunOutcome outcome);

// Of two codes that `lqhost status` could end with, the one that it does.
[[nodiscard]] int worseOf(int one, int other);

}  // namespace host
