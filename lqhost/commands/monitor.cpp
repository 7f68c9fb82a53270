// `lqhost monitor` and `lqhost alerts`: the two log-monitoring checks, once now.
#include "common/text_table.h"
#include "lqhost/commands/commands.h"
#include "lqhost/instance.h"
#include "lqregistry/ObLog.h"

namespace host {

namespace {

// Every line of a check: what applies to this machine stands in the verbose ones.
constexpr int kShownLevel = 10;

int runCheck(const char* function) {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  ProductLibrary product;
  auto* const check = reinterpret_cast<int (*)()>(product.find(function));
  if (check == nullptr) return print(complaint(kExitFailed, product.error()));
  const oblog::Capture log(kShownLevel);
  CommandResult result;
  result.exitCode = check() == 0 ? kExitOk : kExitFailed;
  for (const oblog::Line& line : log.Lines()) result.out += programs::escapedForTerminal(line.text) + "\n";
  result.out += result.exitCode == kExitOk ? "done, or nothing to do on this machine\n" : "failed\n";
  return print(result);
}

}  // namespace

void addLogMonitoring(CommandLine& line) {
  line.add("monitor", "Run the log-space check once now",
           [] { return runCheck("LqSluiceLogMonitoringInterface_CheckLogMonitoringData"); });
  line.add("alerts", "Run the log-monitoring alert rules once now",
           [] { return runCheck("LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule"); });
}

}  // namespace host
