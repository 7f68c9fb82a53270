// How commands tell a person, or a script, what came of them: results on standard output, complaints on
// standard error, and an exit code.
#pragma once

#include <cstddef>
#include <string>

#include "common/command_line.h"
#include "lqregistry/LQPlatformInfo.h"

inline constexpr int kExitDone = 0;
inline constexpr int kExitNotFound = 1;
inline constexpr int kExitUsage = programs::kExitUsage;
inline constexpr int kExitUnavailable = 3;
inline constexpr int kExitFile = 4;  // of an export or import, or standard output

// main() looks at the end whether all of it could be written.
void print(const std::string& text);
// A line to print, `depth` levels in; the caller has made it harmless for a terminal.
std::string lineOf(std::size_t depth, const std::string& text);

// Says on standard error what should be known, made harmless for a terminal.
void warn(const std::string& text);

// Says on standard error what went wrong, likewise, and returns `exitCode`.
[[nodiscard]] int complain(int exitCode, const std::string& text);

// The same for the registry's last call, with a way out: an exit code. `key` is the one that was asked for.
[[nodiscard]] int refused(const LQPlatformInfo& registry, const std::string& key);

// Complains when there is no instance, for the commands that are of one.
[[nodiscard]] bool hasInstance(const LQPlatformInfo& registry);
