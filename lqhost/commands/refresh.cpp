// `lqhost refresh`: reapplies the cached settings once now, and reports what that did. While a note says that
// the cache is behind the registry, it synchronises instead.
#include "lqhost/commands/commands.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cache_watch.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/pass/pass_report.h"
#include "lqhost/service/command_socket.h"

namespace host {

namespace {

int refresh() {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  if (const auto answered = askResident(kAskRefresh)) return print(*answered);
  ProductLibrary product;
  Passes passes(product);
  if (!passes.error().empty()) return print(complaint(kExitFailed, passes.error()));
  return print(refreshNow(passes));
}

CommandResult synchroniseInstead(Passes& passes, const UnsettledNote& reason) {
  CommandResult result = synchroniseNow(passes);
  result.err = complaint(0, unsettledText(reason) + "; synchronising instead of refreshing").err + result.err;
  return result;
}

int exitCodeOf(RunOutcome outcome, std::size_t failedRecords) {
  if (outcome == RunOutcome::kFailed) return kExitFailed;
  if (outcome == RunOutcome::kCacheUnreadable) return kExitCacheUnreadable;
  if (failedRecords != 0) return kExitPartly;
  return outcome == RunOutcome::kCacheLost ? kExitCacheLost : kExitOk;
}

// Another pass may have replaced the cache before this refresh had its turn: what counts then is what the
// cache holds by now, not what it held when the command began.
PassDetails rebased(const PassDetails& begun, const OBGui::KeyList& now) {
  PassDetails details{now, {}};
  for (std::size_t i = 0; i < now.size(); ++i) {
    const bool isSame = i < begun.batch.size() && begun.batch[i].keyPath.get() == now[i].keyPath.get() &&
                        begun.batch[i].valueName.get() == now[i].valueName.get();
    details.before.push_back(isSame ? begun.before[i] : currentValue(now[i]));
  }
  return details;
}

}  // namespace

CommandResult refreshNow(Passes& passes) {
  std::string error;
  std::optional<CachedSettings> cached = readCachedSettings(error);
  if (!cached && !standingNote())
    return complaint(CacheWatch().wasThere() ? kExitCacheUnreadable : kExitFailed,
                     "nothing to reapply: " + error);
  PassDetails details;
  if (cached) details.batch = cached->keys;
  for (const OBGui::RegistryKeyInfo& key : details.batch) details.before.push_back(currentValue(key));

  LqPeriodicTaskStatus status;
  const RefreshResult refreshed = passes.refresh(status);
  if (refreshed.reason) return synchroniseInstead(passes, *refreshed.reason);
  // The note was of a pass under way, which the refresh has waited for: it reapplied what that stored.
  if (!cached) {
    cached = readCachedSettings(error);
    const int exitCode = exitCodeOf(refreshed.outcome, 0);
    if (!cached)
      return complaint(exitCode == kExitOk ? kExitFailed : exitCode, "nothing to reapply: " + error);
    if (exitCode != kExitOk) return complaint(exitCode, outcomeText(refreshed.outcome));
    return {kExitOk,
            "reapplied " + std::to_string(cached->keys.size()) +
                " records, which a synchronisation has just stored; the next refresh is due in " +
                std::to_string(status.getFrequency()) + " s\n",
            ""};
  }
  BatchReport report = reportOf(details);
  const std::optional<CachedSettings> kept = readCachedSettings(error);
  if (kept && report.failed != 0) report = reportOf(rebased(details, kept->keys));
  CommandResult result;
  result.exitCode = exitCodeOf(refreshed.outcome, report.failed);
  result.out = report.text + "the cache holds " + std::to_string(kept ? kept->keys.size() : 0) +
               " records now, " + std::to_string(cached->keys.size()) +
               " before; the next refresh is due in " + std::to_string(status.getFrequency()) + " s\n";
  if (!kept) result.err = complaint(0, error).err;
  return result;
}

void addRefresh(CommandLine& line) {
  line.add("refresh", "Reapply the cached settings once now, and report what changed", &refresh);
}

}  // namespace host
