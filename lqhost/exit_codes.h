// What lqhost's exit codes mean, for scripts; the help text lists them.
#pragma once

namespace host {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;     // no batch was received
inline constexpr int kExitUsage = 2;      // wrong command line, or an unusable join file
inline constexpr int kExitNotJoined = 3;  // this instance has not joined, or the registry cannot be used
inline constexpr int kExitPartly = 4;     // a batch was received, but not all of it could be applied
inline constexpr int kExitSkipped = 5;    // synchronisation is switched off, or joining is not finished
inline constexpr int kExitDrift = 6;      // values differ from what the cache says they should be

}  // namespace host
