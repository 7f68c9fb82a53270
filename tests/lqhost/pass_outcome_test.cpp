// What a pass came to, and a refresh, where several things went wrong or there is nothing to go by.
#include "lqhost/pass/refresh_outcome.h"
#include "tests/support/product_fixture.h"

namespace {

using enum host::RunOutcome;

// What went wrong in a pass, what it came to, and whether the schedule may rest on it: never when the server
// or the cache lacks something, also where records that failed hide it.
TEST(PassOutcome, IsTheWorstOfWhatWentWrong) {
  using host::PassResult;
  const std::tuple<std::function<void(PassResult&)>, host::RunOutcome, bool> cases[] = {
      {[](PassResult&) {}, kApplied, true},
      {[](PassResult& pass) { pass.acknowledgedAs.reset(); }, kUnacknowledged, false},
      {[](PassResult& pass) { pass.isGoodbyeAnswered = PassResult().isGoodbyeAnswered; }, kUnacknowledged,
       false},
      {[](PassResult& pass) { pass.refusal = "full"; }, kUnacknowledged, false},
      {[](PassResult& pass) { pass.cache = host::CacheFate::kLost; }, kCacheLost, false},
      {[](PassResult& pass) { pass.cache = host::CacheFate::kKept; }, kCacheKept, false},
      {[](PassResult& pass) { pass.received.reset(); }, kSkipped, true},
      {[](PassResult& pass) { pass.taskResult = -1; }, kFailed, false}};
  for (const auto& [spoil, outcome, isWell] : cases) {
    PassResult pass;
    pass.received = 1;
    pass.isGoodbyeAnswered = true;
    pass.acknowledgedAs = OBGui::kTaskSuccess;
    spoil(pass);
    EXPECT_EQ(pass.outcome(), outcome);
    EXPECT_EQ(pass.hasEndedWell(), isWell) << host::outcomeText(outcome);
    pass.failedRecords = 1;
    EXPECT_EQ(pass.outcome(), outcome == kSkipped || outcome == kFailed ? outcome : kPartly);
    EXPECT_EQ(pass.hasEndedWell(), isWell) << host::outcomeText(outcome);
  }
}

using RefreshWithoutCache = ProductTest;
TEST_F(RefreshWithoutCache, LosesNothingAndIsToldApartFromOneThatCannotRead) {
  setValue("Base", "dBASEHOME", dir_.path().string());
  EXPECT_EQ(host::judgeRefresh(0, host::CacheWatch()), kDone);
  EXPECT_EQ(host::judgeRefresh(-1, host::CacheWatch()), kFailed);
  EXPECT_EQ(host::nothingToReapply(), kFailed);
  writeFile(cacheFile(), "<damaged");
  EXPECT_EQ(host::nothingToReapply(), kCacheUnreadable);
  EXPECT_EQ(host::judgeRefresh(0, host::CacheWatch()), kCacheUnreadable);
  // Records that failed are told before a cache that was lost, not before one that was of no use.
  EXPECT_EQ((host::RefreshResult{kCacheLost, {}, 1}.outcome()), kPartly);
  EXPECT_EQ((host::RefreshResult{kCacheUnreadable, {}, 1}.outcome()), kCacheUnreadable);
}

}  // namespace
