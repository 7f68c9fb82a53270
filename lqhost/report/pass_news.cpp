#include "lqhost/report/pass_news.h"

#include "lqregistry/OBGui.h"

namespace host {

namespace {

const char* wordOf(RunOutcome outcome) {
  switch (outcome) {
    case RunOutcome::kDone:
      return "done";
    case RunOutcome::kApplied:
      return "applied";
    case RunOutcome::kPartly:
      return "partly";
    case RunOutcome::kUnacknowledged:
      return "unacknowledged";
    case RunOutcome::kSkipped:
      return "skipped";
    case RunOutcome::kFailed:
      return "failed";
    case RunOutcome::kCacheLost:
      return "cacheLost";
    case RunOutcome::kCacheKept:
      return "cacheKept";
    case RunOutcome::kCacheUnreadable:
      return "cacheUnreadable";
    case RunOutcome::kHeldBack:
      return "heldBack";
    case RunOutcome::kPutOff:
      break;
  }
  return "putOff";
}

const char* wordOf(CacheFate fate) {
  switch (fate) {
    case CacheFate::kStored:
      break;
    case CacheFate::kLost:
      return "lost";
    case CacheFate::kKept:
      return "kept";
    case CacheFate::kUnreadable:
      return "unreadable";
  }
  return "stored";
}

void addCacheProblem(PassNews& news, CacheFate fate) {
  switch (fate) {
    case CacheFate::kStored:
      break;
    case CacheFate::kLost:
      news.problems.push_back({"", "", {kCacheLostProblem, "the settings cache could not be written"}});
      break;
    case CacheFate::kKept:
      news.problems.push_back(
          {"",
           "",
           {kCacheKeptProblem,
            "the settings cache holds more records than the batch, was kept, and works against it"}});
      break;
    case CacheFate::kUnreadable:
      news.problems.push_back(
          {"", "", {kCacheUnreadableProblem, "the settings cache cannot be read, and was not replaced"}});
      break;
  }
}

// The cache holds protected values as well: without the key it cannot be written, however much room there is.
void addCacheProblem(PassNews& news, CacheFate fate, const BatchFacts& batch) {
  const bool mayLackKey = fate == CacheFate::kLost && !batch.secrets.empty();
  const FailureReason reason = mayLackKey ? whyUnprotected() : FailureReason{};
  if (*reason.kind == '\0') return addCacheProblem(news, fate);
  news.problems.push_back({"", "", {reason.kind, "the settings cache could not be written: " + reason.text}});
}

void addPlace(PassNews& news, const std::string& place, const FailureReason& reason) {
  const std::size_t end = place.find('\0');
  news.problems.push_back({place.substr(0, end), place.substr(end + 1), reason});
}

// What the registry refused, place by place; of a batch that was lost, everything that it changed.
void addFailedWrites(PassNews& news, const RegistryWrites& writes) {
  for (const auto& [place, failure] : writes.failed) addPlace(news, place, reasonOf(failure));
  if (!writes.lost) return;
  const FailureReason reason = reasonOf(*writes.lost);
  for (const auto& [place, before] : writes.changed)
    if (!writes.failed.contains(place)) addPlace(news, place, reason);
}

void addBatchProblems(PassNews& news, const BatchFacts& batch, const RegistryWrites& writes, bool isApplied) {
  if (!isApplied) {
    news.problems.insert(news.problems.end(), batch.refused.begin(), batch.refused.end());
    if (const FailureReason reason = whyUnprotected(); !batch.secrets.empty() && *reason.kind != '\0')
      for (const RecordProblem& secret : batch.secrets)
        news.problems.push_back({secret.keyPath, secret.valueName, reason});
    addFailedWrites(news, writes);
    if (news.problems.empty())
      news.problems.push_back(
          {"", "", {kUnknown, "the batch could not be applied; the host's log tells why"}});
  }
  news.problems.insert(news.problems.end(), batch.tooLong.begin(), batch.tooLong.end());
}

void settleWritten(PassNews& news, const RegistryWrites& writes) {
  for (const auto& [place, before] : writes.changed) news.settled.insert(place);
  for (const auto& [place, failure] : writes.failed) news.settled.insert(place);
}

}  // namespace

PassNews newsOf(const PassResult& pass, const std::optional<BatchFacts>& batch,
                const RegistryWrites& writes) {
  PassNews news;
  news.outcome = wordOf(pass.outcome());
  news.outcomeText = outcomeText(pass.outcome());
  if (!batch) return news;
  news.batch = batch;
  news.isWhole = true;
  news.cache = wordOf(pass.cache);
  // Without an acknowledgement nobody has said that everything could be applied.
  addBatchProblems(news, *batch, writes,
                   pass.acknowledgedAs ? *pass.acknowledgedAs == OBGui::kTaskSuccess
                                       : batch->refused.empty() && writes.failed.empty() && !writes.lost &&
                                             (batch->secrets.empty() || *whyUnprotected().kind == '\0'));
  addCacheProblem(news, pass.cache, *batch);
  return news;
}

PassNews newsOf(const RefreshResult& refresh) {
  PassNews news;
  news.cause = HostReport::kCauseRefresh;
  settleWritten(news, refresh.writes);
  addFailedWrites(news, refresh.writes);
  if (refresh.run == RunOutcome::kCacheLost) addCacheProblem(news, CacheFate::kLost);
  if (refresh.run == RunOutcome::kCacheUnreadable) addCacheProblem(news, CacheFate::kUnreadable);
  return news;
}

PassNews newsOfPush(bool isApplied, const BatchFacts& batch, const RegistryWrites& writes) {
  PassNews news;
  news.cause = HostReport::kCausePush;
  news.batch = batch;
  settleWritten(news, writes);
  addBatchProblems(news, batch, writes, isApplied);
  for (const RecordProblem& problem : news.problems)
    news.settled.insert(placeOf(problem.keyPath, problem.valueName));
  return news;
}

}  // namespace host
