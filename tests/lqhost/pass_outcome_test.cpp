// What a pass came to.
#include "lqhost/pass/pass_outcome.h"
#include "tests/support/product_fixture.h"

namespace {

// What went wrong in a pass, what it came to, and whether the schedule may rest on it: never when the server
// or the cache lacks something, also where records that failed hide it.
TEST(PassOutcome, IsTheWorstOfWhatWentWrong) {
  using host::PassResult;
  using host::RunOutcome;
  const std::tuple<std::function<void(PassResult&)>, RunOutcome, bool> cases[] = {
      {[](PassResult&) {}, RunOutcome::kApplied, true},
      {[](PassResult& pass) { pass.acknowledgedAs.reset(); }, RunOutcome::kUnacknowledged, false},
      {[](PassResult& pass) { pass.isGoodbyeAnswered = PassResult().isGoodbyeAnswered; },
       RunOutcome::kUnacknowledged, false},
      {[](PassResult& pass) { pass.refusal = "full"; }, RunOutcome::kUnacknowledged, false},
      {[](PassResult& pass) { pass.cache = host::CacheFate::kLost; }, RunOutcome::kCacheLost, false},
      {[](PassResult& pass) { pass.cache = host::CacheFate::kKept; }, RunOutcome::kCacheKept, false},
      {[](PassResult& pass) { pass.received.reset(); }, RunOutcome::kSkipped, true},
      {[](PassResult& pass) { pass.taskResult = -1; }, RunOutcome::kFailed, false}};
  for (const auto& [spoil, outcome, isWell] : cases) {
    PassResult pass;
    pass.received = 1;
    pass.isGoodbyeAnswered = true;
    pass.acknowledgedAs = OBGui::kTaskSuccess;
    spoil(pass);
    EXPECT_EQ(pass.outcome(), outcome);
    EXPECT_EQ(pass.hasEndedWell(), isWell) << host::outcomeText(outcome);
    pass.failedRecords = 1;
    const bool isHidden = outcome != RunOutcome::kSkipped && outcome != RunOutcome::kFailed;
    EXPECT_EQ(pass.outcome(), isHidden ? RunOutcome::kPartly : outcome);
    EXPECT_EQ(pass.hasEndedWell(), isWell) << host::outcomeText(outcome);
  }
}

}  // namespace
