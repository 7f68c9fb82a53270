// How commands tell a person, or a script, what came of them: results on standard output, complaints on
// standard error, and an exit code.
#pragma once

#include <string>

#include "common/command_line.h"
#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

inline constexpr int kExitOk = 0;
inline constexpr int kExitRefused = 1;  // not found, or refused
inline constexpr int kExitUsage = programs::kExitUsage;
inline constexpr int kExitDataUnusable = 3;
inline constexpr int kExitUnreachable = 4;  // the client could not be reached, or did not answer

void print(const std::string& text);

// Says on standard error what should be known, and is no reason to end.
void warn(const std::string& text);

// Says on standard error what went wrong, and returns `exitCode`.
[[nodiscard]] int complain(int exitCode, const std::string& text);

// The same for two things that go wrong everywhere.
[[nodiscard]] int dataUnusable(const CWmError& error);
[[nodiscard]] int unknownClient(const DataStore& store, const std::string& client);
