// What a refresh is told as, where several things went wrong or there is nothing to go by.
#include "lqhost/pass/refresh_outcome.h"

#include "tests/support/product_fixture.h"

namespace {

using enum host::RunOutcome;

TEST(RefreshOutcome, WhatLeavesTheMachineFurthestBehindComesFirst) {
  const std::tuple<host::RunOutcome, host::RunOutcome, host::RunOutcome> cases[] = {
      {kDone, kPartly, kFailed},
      {kCacheLost, kPartly, kCacheLost},
      {kCacheUnreadable, kCacheUnreadable, kCacheUnreadable},
      {kFailed, kFailed, kFailed}};
  for (const auto& [run, withFailedRecords, withoutCache] : cases) {
    EXPECT_EQ((host::RefreshResult{run, {}, 0}.outcome()), run);
    EXPECT_EQ((host::RefreshResult{run, {}, 1}.outcome()), withFailedRecords);
    EXPECT_EQ((host::RefreshResult{run, {}, 1}.outcomeWithoutCache()), withoutCache);
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
  const host::CacheWatch damaged;
  EXPECT_EQ(host::judgeRefresh(0, damaged), kCacheUnreadable);
  writeFile(cacheFile(), "");
  EXPECT_EQ(host::judgeRefresh(0, damaged), kCacheLost);
}

}  // namespace
