#include "lqhost/commands/monitor.h"

#include <cstdio>

#include "common/text_table.h"
#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/service/product_library.h"
#include "lqregistry/ObLog.h"

namespace host {

namespace {

// Every line of a check: what applies to this machine stands in the verbose ones.
constexpr int kShownLevel = 10;

int runCheck(const char* function) {
  if (!requireJoined()) return kExitNotJoined;
  ProductLibrary product;
  auto* const check = reinterpret_cast<int (*)()>(product.find(function));
  if (check == nullptr) {
    std::fprintf(stderr, "lqhost: %s\n", product.error().c_str());
    return kExitFailed;
  }
  const oblog::Capture log(kShownLevel);
  const int result = check();
  for (const oblog::Line& line : log.Lines())
    std::printf("%s\n", programs::escapedForTerminal(line.text).c_str());
  std::printf("%s\n", result == 0 ? "done, or nothing to do on this machine" : "failed");
  return result == 0 ? kExitOk : kExitFailed;
}

}  // namespace

int monitor() {
  return runCheck("LqSluiceLogMonitoringInterface_CheckLogMonitoringData");
}

int alerts() {
  return runCheck("LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule");
}

}  // namespace host
