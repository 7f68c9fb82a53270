// What the program's exit code tells a script.
#pragma once

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;  // not found, or refused
inline constexpr int kExitUsage = 2;
inline constexpr int kExitDataUnusable = 3;
inline constexpr int kExitUnreachable = 4;  // the client could not be reached, or did not answer
