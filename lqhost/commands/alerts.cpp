// `lqhost alerts`: the log-monitoring alert rules, once now.
#include "lqhost/commands/commands.h"
#include "lqhost/commands/log_check.h"

namespace host {

void addAlerts(CommandLine& line) {
  line.add("alerts", "Run the log-monitoring alert rules once now",
           [] { return runLogCheck("LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule"); });
}

}  // namespace host
