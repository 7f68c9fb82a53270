#include "lqhost/commands/refresh.h"

#include <cstdio>

#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/pass/pass_observer.h"
#include "lqhost/pass/pass_report.h"
#include "lqhost/service/product_library.h"
#include "lqhost/service/task_run.h"

namespace host {

int refresh() {
  if (!requireJoined()) return kExitNotJoined;
  ProductLibrary product;
  const TaskCallback callback = product.findTask(kRefreshTask.timerCallback);
  if (callback == nullptr) {
    std::fprintf(stderr, "lqhost: %s\n", product.error().c_str());
    return kExitFailed;
  }
  std::string error;
  const std::optional<CachedSettings> cached = readCachedSettings(error);
  if (!cached) {
    std::fprintf(stderr, "lqhost: nothing to reapply: %s\n", error.c_str());
    return kExitFailed;
  }
  PassFacts facts;
  facts.batch = cached->keys;
  for (const OBGui::RegistryKeyInfo& key : facts.batch) facts.before.push_back(heldValue(key));

  LqPeriodicTaskStatus status;
  if (!runTask(kRefreshTask, callback, status)) return complainOfOtherRun(kRefreshTask);

  const std::size_t failed = reportBatch(facts);
  const std::optional<CachedSettings> kept = readCachedSettings(error);
  std::printf("the cache holds %zu records now, %zu before; the next refresh is due in %u s\n",
              kept ? kept->keys.size() : 0, cached->keys.size(), status.getFrequency());
  return failed == 0 ? kExitOk : kExitPartly;
}

}  // namespace host
