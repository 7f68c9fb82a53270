// What a report says of a record, where no registry is needed to say it.
#include "lqhost/pass/batch_outcome.h"

#include "tests/support/product_fixture.h"

namespace {

TEST(BatchOutcome, OfRecordsThatNameOneValueTheLastCountsInWhateverFormItsPathStands) {
  const OBGui::KeyList keys{record("A", "x", "1"), record("B", "x", "1"), record("~A", "x", "2"),
                            record("SOFTWARE/A", "x", "3"), record("A", "y", "4")};
  EXPECT_EQ(host::effectiveRecords(keys), (std::vector<std::size_t>{1, 2, 3, 4}));
}

TEST(BatchOutcome, ARecordIsAsWantedWhenTheRegistryHoldsItOrNoLongerHolds) {
  const auto removed = removal("A", "x");
  const auto subKey = record("~", "Local", "ignored", "KEY");
  const std::tuple<OBGui::RegistryKeyInfo, host::CurrentValue, bool> cases[] = {
      {record("A", "x", "1"), "1", true},
      {record("A", "x", "1"), "2", false},
      {record("A", "x", "1"), {}, false},
      {removed, {}, true},
      {removed, "", false},
      {disabled("A", "x", "1"), {}, true},
      {subKey, "", true},
      {subKey, {}, false}};
  for (const auto& [key, now, isWanted] : cases)
    EXPECT_EQ(host::isAsWanted(key, now), isWanted) << key.valueName.get() << now.value_or("none");
}

TEST(BatchOutcome, LongValuesAreCutAndProtectedOnesAreMasked) {
  const std::string longest(48, 'v');
  EXPECT_EQ(host::shownValue(record("A", "x", ""), longest), longest);
  EXPECT_EQ(host::shownValue(record("A", "x", ""), longest + "v"), longest + "...");
  EXPECT_EQ(host::shownValue(record("A", "x", "", "ENCRYPTED"), "V8:text"), "********");
}

}  // namespace
