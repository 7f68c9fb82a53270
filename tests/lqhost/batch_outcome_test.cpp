// What became of each record of a batch, and how the report tells it.
#include "lqhost/pass/batch_outcome.h"

#include <regex>

#include "lqhost/pass/pass_report.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

using BatchOutcome = ProductTest;

TEST_F(BatchOutcome, IsJudgedByWhatTheRegistryHolds) {
  join();
  for (const char* const there : {"sCHANGED", "sSAME", "sGONE", "sOVER", "sOFF"}) setValue("A", there, "1");
  const std::string longest(48, 'v');
  const auto batch = OBGui::KeyList(
      {record("~A", "sNEW", "is overruled"), record("A", "sNEW", longest),
       record("A", "sLONG", longest + "v"), record("A", "sCHANGED", "2"), record("A", "sSAME", "1"),
       removal("A", "sGONE"), record("A", "sOVER", "1"), record("A", "sOVER_UNTIL", "1"),
       disabled("A", "sOFF", "1"), record("A", "sOFF_UNTIL", "1"), secretRecord("A", "sPW", "sesame"),
       removal("EventManager", "dOBLOGDIR"), record("A", "", "x"), removal("A", ""),
       record("Clients", "Other", "", "KEY"), record("A", std::string(1025, 'n'), "1")});
  host::PassDetails details{batch, host::currentValues(batch), {}};
  OBGui::KeyList applied = batch;
  host::WritesWatch writes;
  EXPECT_EQ(LqRegistryManagerClnt("").updateRegistryKeysForClient(applied), kResultFailed);
  details.writes = writes.take();
  setValue("EventManager", "dOBLOGDIR", "/opt/x/Log_Files");  // as the repair of the log directory does
  const host::BatchReport report = host::reportOf(std::move(details));
  EXPECT_EQ(report.failed, 3U);
  std::string text = report.text;
  for (const auto& [from, to] :
       {std::pair(" +", " "), std::pair("v{48}", "48v"), std::pair("n{1025}", "1025n")})
    text = std::regex_replace(text, std::regex(from), to);
  EXPECT_EQ(text, R"(OUTCOME KEY VALUE NOW NOTE
added ~A sNEW 48v
added ~A sLONG 48v...
changed ~A sCHANGED 2
left ~A sSAME 1
removed ~A sGONE
removed ~A sOVER expired
left ~A sOVER_UNTIL expired
removed ~A sOFF disabled
left ~A sOFF_UNTIL expired
added ~A sPW ******** protected
reset ~EventManager dOBLOGDIR /opt/x/Log_Files removed by the server, reset to its default
failed ~A a record without a name cannot be removed
failed ~Clients Other keys may not be created remotely
failed ~A 1025n the registry does not take this name or path: the value name is longer than 1024 bytes

16 records: 3 added, 1 changed, 3 removed, 1 reset, 3 left as they were, 3 failed
)");
}

}  // namespace
