// Which records have come to their end.
#include "records/expiry.h"

#include "tests/support/product_fixture.h"

namespace {

TEST(Expiry, AValueExpiresOnceItsTimeIsOverAndNotWhenItIsReached) {
  for (const std::time_t now : {1000, 1001}) {
    OBGui::KeyList keys{record("A", "Trace_UNTIL", "1000"), record("B", "Trace", "1")};
    keys[1].deleteFlag = 2;  // neither a removal nor absent: the expiry decides
    markExpired(keys, now);
    EXPECT_EQ(keys[0].deleteFlag, now == 1000 ? 0 : 1);
    EXPECT_EQ(keys[1].deleteFlag, now == 1000 ? 2 : 1);
  }
}

}  // namespace
