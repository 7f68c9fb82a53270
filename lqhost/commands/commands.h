// The commands of lqhost. Each adds its description and its options to the command line, with what it does;
// see the file of the same name.
#pragma once

#include <cstddef>
#include <string>

#include "common/command_line.h"
#include "lqhost/command_result.h"
#include "lqhost/service/passes.h"

namespace host {

using programs::CommandLine;

void addJoin(CommandLine& line);
void addSync(CommandLine& line);
void addRefresh(CommandLine& line);
void addUpload(CommandLine& line);
void addMonitor(CommandLine& line);
void addAlerts(CommandLine& line);
void addStatus(CommandLine& line);
void addExplain(CommandLine& line);
void addRollback(CommandLine& line);
inline constexpr const char* kRunCommand = "run";
void addRun(CommandLine& line);

// What the resident host does for those who ask it, and what the commands do themselves when there is none.
[[nodiscard]] CommandResult synchroniseNow(Passes& passes, OldCache oldCache = OldCache::kStays);
[[nodiscard]] CommandResult refreshNow(Passes& passes);
[[nodiscard]] CommandResult uploadNow();
[[nodiscard]] CommandResult rollBackNow(Passes& passes);

// What modules have registered in this process: for each place that somebody has registered for, its line
// below, and what is registered.
[[nodiscard]] CommandResult whatIsRegistered();

// The line of `lqhost status` on change callbacks that wait in the resident host.
inline constexpr std::size_t kManyCallbacks = 10000;
std::string waitingCallbacksText(std::size_t waiting);

}  // namespace host
