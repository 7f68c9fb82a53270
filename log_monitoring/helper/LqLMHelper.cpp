// A minimal helper library: it says in the log that its procedures ran. An installation with log-monitoring
// work of its own puts another library of this name in the base home directory.
#include "log_monitoring/helper/LqLMHelper.h"

#include "lqregistry/ObDebug.h"

void LMSpaceCheck(std::uint64_t clientId) {
  const ObEvent event;
  event.Debug("LMSpaceCheck", "Log-space check ran for client [%lu]", static_cast<unsigned long>(clientId));
}

void processLogMonitoringAlertRule() {
  const ObEvent event;
  event.Debug("processLogMonitoringAlertRule", "Log-monitoring alert rules were processed");
}
