// How commands tell a person, or a script, what came of them: results on standard output, complaints on
// standard error, and an exit code.
#pragma once

#include <string>

#include "common/command_line.h"
#include "lqregistry/CWmError.h"

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;  // not found, or refused
inline constexpr int kExitUsage = programs::kExitUsage;
inline constexpr int kExitDataUnusable = 3;
inline constexpr int kExitUnreachable = 4;  // the client could not be reached, or did not answer
inline constexpr int kExitNotCurrent = 6;   // a machine that was asked about is not as it should be

void print(const std::string& text);

// The exit code, unless what was printed has not reached standard output: a list of which an end is missing
// is taken for the whole.
[[nodiscard]] int exitCodeOncePrinted(int exitCode);

// Says on standard error what should be known, and is no reason to end.
void warn(const std::string& text);

// Says on standard error what went wrong, and returns `exitCode`.
[[nodiscard]] int complain(int exitCode, const std::string& text);

// What came of work on the store: kExitUsage for what somebody wrote, kExitRefused for what was refused or
// not found, kExitDataUnusable when the store is at fault. storeFailed() says it as well.
[[nodiscard]] int exitCodeOf(const CWmError& error);
[[nodiscard]] int storeFailed(const CWmError& error);
