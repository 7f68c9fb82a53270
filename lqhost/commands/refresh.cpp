// `lqhost refresh`: reapplies the cached settings once now, and reports what that did. While a note says that
// the cache is behind the registry, it synchronises instead.
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/pass/pass_report.h"
#include "lqhost/service/ask_resident.h"

namespace host {

namespace {

int refresh() {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  if (const auto answered = answerOfResident(kAskRefresh)) return print(*answered);
  ProductLibrary product;
  Passes passes(product);
  if (passes.error().IsError()) return print(complaint(kExitFailed, passes.error().AsString()));
  return print(refreshNow(passes));
}

CommandResult synchroniseInstead(Passes& passes, const UnsettledNote& reason) {
  CommandResult result = synchroniseNow(passes);
  result.err = complaintLine(unsettledText(reason) + "; synchronising instead of refreshing") + result.err;
  return result;
}

CommandResult noCache(const CWmError& error) {
  return complaint(exitCodeOf(nothingToReapply()), std::string("nothing to reapply: ") + error.AsString());
}

// Another pass may have replaced the cache before this refresh had its turn: what counts then is what the
// cache holds by now, not what it held when the command began.
PassDetails rebased(const PassDetails& begun, OBGui::KeyList now) {
  std::vector<CurrentValue> before = currentValues(now);
  for (std::size_t i = 0; i < now.size() && i < begun.batch.size(); ++i) {
    const bool isSame = begun.batch[i].keyPath.get() == now[i].keyPath.get() &&
                        begun.batch[i].valueName.get() == now[i].valueName.get();
    if (isSame) before[i] = begun.before[i];
  }
  return {std::move(now), std::move(before), begun.writes};
}

}  // namespace

CommandResult refreshNow(Passes& passes) {
  CachedSettings cached;
  CWmError error = readCachedSettings(cached);
  const bool wasRead = !error.IsError();
  if (!wasRead && !standingNote()) return noCache(error);
  PassDetails details;
  details.batch = cached.keys;
  details.before = currentValues(details.batch);

  LqPeriodicTaskStatus status;
  RefreshResult refreshed = passes.refresh(status);
  if (refreshed.run == RunOutcome::kPutOff && !refreshed.reason)
    return complaint(kExitFailed,
                     "this machine is going back to older values, and could not end that; see the log");
  if (refreshed.reason) return synchroniseInstead(passes, *refreshed.reason);
  details.writes = refreshed.writes;
  const std::string next = "; the next refresh is due in " + std::to_string(status.getFrequency()) + " s\n";
  CachedSettings kept;
  error = readCachedSettings(kept);
  if (!wasRead && error.IsError()) return noCache(error);
  BatchReport report = reportOf(details);
  // Without a cache to begin with, the note was of a pass under way, which the refresh has waited for.
  if (!error.IsError() && (!wasRead || report.failed != 0)) report = reportOf(rebased(details, kept.keys));
  refreshed.failedRecords = report.failed;
  CommandResult result;
  result.exitCode = exitCodeOf(refreshed.outcome());
  result.out = report.text + "the cache holds " + std::to_string(kept.keys.size()) + " records now, " +
               std::to_string(cached.keys.size()) + " before" + next;
  if (error.IsError()) result.err = complaintLine(error.AsString());
  return result;
}

void addRefresh(CommandLine& line) {
  line.add("refresh", "Reapply the cached settings once now, and report what changed", &refresh);
}

}  // namespace host
