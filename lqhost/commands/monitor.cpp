// `lqhost monitor`: the log-space check, once now.
#include "lqhost/commands/commands.h"
#include "lqhost/commands/log_check.h"

namespace host {

void addMonitor(CommandLine& line) {
  line.add("monitor", "Run the log-space check once now",
           [] { return runLogCheck("LqSluiceLogMonitoringInterface_CheckLogMonitoringData"); });
}

}  // namespace host
