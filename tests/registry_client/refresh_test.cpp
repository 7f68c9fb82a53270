// The Additional Settings refresh: what it reapplies and keeps, what it leaves alone, and what the log says
// of it; and the client id that is looked up once.
#include <ctime>

#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kTag = "additionalSettingsRefresh";
const std::string kTimerTag = "int AdditionalSettingsRefresh_OnTimer(LqPeriodicTaskStatus*)";
const std::string kCleaning = "0|" + kTag + "|Cleaning temporary key.";

class Refresh : public ProductTest {
 protected:
  Refresh() { join(); }

  void cache(const OBGui::KeyList& keys) const {
    OBGui::RegistryTaskResp batch;
    batch.taskStatus = OBGui::kTaskSuccess;
    batch.client.edit().clientId = kClientId;
    batch.keys = keys;
    std::string text;
    ASSERT_EQ(batch.serialize(text, false), 0);
    writeFile(cacheFile(), text);
  }
};

// --- the task ----------------------------------------------------------------------------------------------

TEST_F(Refresh, EachRunSetsTheFrequencyAnew) {
  const std::tuple<const char*, std::uint32_t, const char*> cases[] = {
      {nullptr, 3600, "60"},    {"0", 3600, "60"},           {"5", 300, "5"}, {"soon", 3600, "60"},
      {"-1", 4294967236, "-1"}, {"71582789", 44, "71582789"}};  // what is beyond 32 bits is cut off
  LqPeriodicTaskStatus status;
  for (const auto& [setting, seconds, minutes] : cases) {
    if (setting != nullptr) setValue("QMachineMaint", "nTimer_AdditionalSettingsRefresh", setting);
    const oblog::Capture log;
    EXPECT_EQ(AdditionalSettingsRefresh_OnTimer(&status), 0);
    EXPECT_EQ(status.getFrequency(), seconds);
    EXPECT_EQ(
        linesOf(log, kTimerTag),
        Lines{"2|" + kTimerTag + "|Timer for Task [AdditionalSettingsRefresh] is set to [" + minutes + "]."});
    EXPECT_EQ(linesOf(log, kTag),
              (Lines{kCleaning, "0|" + kTag + "|Failed to get Additional Settings XML from registry."}));
    for (const oblog::Line& line : log.Lines()) EXPECT_EQ(line.context, -123456) << line.text;
  }
  EXPECT_EQ(status.getLastRunTime(), 0);
}

TEST_F(Refresh, ACacheThatCannotBeReadStaysAsItWas) {
  setValue("A", "sVALUE", "1");
  for (const char* broken : {"<OBGui.RegistryTaskResp><keys>", "no cache", "<OBGui.RegistryTaskReq/>"}) {
    writeFile(cacheFile(), broken);
    const oblog::Capture log;
    EXPECT_EQ(additionalSettingsRefresh(), 1U);
    EXPECT_EQ(linesOf(log, kTag), (Lines{kCleaning, "plain|" + kTag + "|Unable to unserialize xml."}));
    EXPECT_EQ(readFile(cacheFile()), broken);
  }
  EXPECT_EQ(valueOf("A", "sVALUE"), "1");
}

// --- a pass ------------------------------------------------------------------------------------------------

TEST_F(Refresh, APassReappliesCleansAndKeepsTheRest) {
  OBGui::RegistryKeyInfo odd = record("A", "sODD", "1");
  odd.deleteFlag = 2;  // written and kept: only 1 removes
  const std::string later = std::to_string(std::time(nullptr) + 3600);
  cache({record("A", "sCOHDbStatus", "up"), record("A", "sKEPT", "new"), removal("A", "sTEMPORARY"),
         record("B", "nTRIAL", "1"), disabled("A", "sDISABLED", "1"), record("A", "nTRIAL_UNTIL", "1"),
         record("A", "sOFFER", "1"), record("A", "sOFFER_UNTIL", later), record("A", "sCOHDBSTATUS", "other"),
         secretRecord("A", "sPASSWORD", "sesame"), odd});
  for (const char* name : {"sCOHDbStatus", "sKEPT", "sTEMPORARY", "sDISABLED"}) setValue("A", name, "old");
  setValue("B", "nTRIAL", "1");
  const oblog::Capture log(2);
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(linesOf(log), Lines{kCleaning});
  EXPECT_EQ(valuesOf("A", {"sCOHDbStatus", "sKEPT", "sTEMPORARY", "sDISABLED", "nTRIAL_UNTIL", "sOFFER",
                           "sOFFER_UNTIL", "sCOHDBSTATUS", "sODD"}),
            "old new - - - 1 " + later + " other 1");
  EXPECT_EQ(valueOf("B", "nTRIAL"), std::nullopt);
  EXPECT_EQ(valueOf("A", "sPASSWORD"), pstring("sesame").getV8Password());
  EXPECT_EQ(cachedNames(),
            (Lines{"sKEPT", "sDISABLED", "sOFFER", "sOFFER_UNTIL", "sCOHDBSTATUS", "sPASSWORD", "sODD"}));
  EXPECT_EQ(cached().taskStatus, OBGui::kTaskSuccess);
  EXPECT_EQ(cached().client->clientId, kClientId);
  EXPECT_EQ(readFile(cacheFile()).find("sesame"), std::string::npos);

  // What the cache no longer names belongs to the machine; what it names comes back.
  const std::string kept = readFile(cacheFile());
  setValue("A", "sTEMPORARY", "mine");
  setValue("A", "sKEPT", "drifted");
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(valuesOf("A", {"sTEMPORARY", "sKEPT"}), "mine new");
  writeFile(cacheFile(), kept + "\n");
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(readFile(cacheFile()), kept) << "written again even when nothing changed";
}

TEST_F(Refresh, AFailedApplyStillCleansTheCache) {
  cache({record("Clients", "Other", "", "KEY"), removal("A", "sTEMPORARY"), record("A", "sKEPT", "1")});
  const oblog::Capture log;
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_TRUE(hasLine(log, "plain|" + kTag + "|Failed to update registry keys."));
  EXPECT_EQ(cachedNames(), (Lines{"Other", "sKEPT"}));
  EXPECT_EQ(valueOf("A", "sKEPT"), "1");
}

TEST_F(Refresh, OneSecretThatCannotBeReadCostsTheOthersNothing) {
  cache({record("A", "sFIRST", "1"), secretRecord("A", "sPASSWORD", "sesame"), record("A", "sLAST", "1")});
  const std::string sealed = pstring("sesame").getV8Password();
  const std::string foreign = "V8:" + std::string(sealed.size() - 3, 'A');
  std::string text = readFile(cacheFile());
  text.replace(text.find(sealed), sealed.size(), foreign);
  writeFile(cacheFile(), text);
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(valuesOf("A", {"sFIRST", "sLAST", "sPASSWORD"}), "1 1 -");
  EXPECT_EQ(readFile(cacheFile()), text) << "with the right key it can be read again";

  text = batchText({secretRecord("A", "sPASSWORD", "sesame")});  // in clear, as the server sends it
  writeFile(cacheFile(), text);
  pstring::UseKeyFile(dir_ / "no/such/folder");
  const oblog::Capture log;
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_TRUE(hasLine(log, "error|" + kTag + "|The cache is left as it was"));
  EXPECT_EQ(readFile(cacheFile()), text);
}

// --- the client id -----------------------------------------------------------------------------------------

TEST_F(Refresh, TheClientIdIsLookedUpUntilItIsKnownAndThenNeverAgain) {
  const auto expectUnknown = [&](const std::string& reason) {
    const oblog::Capture log;
    EXPECT_EQ(getClientId(), 0U);
    EXPECT_EQ(linesOf(log), Lines{"error|long unsigned int getClientId()|" + reason});
  };
  removeValue("Machine", "sPHYSICALNAME");
  expectUnknown("Failed to get the local client name.");
  setValue("Machine", "sPHYSICALNAME", std::string(300, 'm'));
  expectUnknown("Failed to get the local client Id for client: [" + std::string(256, 'm') + "]");
  setValue("Machine", "sPHYSICALNAME", "machine42");
  ASSERT_TRUE(LQClient::recordClient("client42", 4294967338));
  EXPECT_EQ(getClientId(), 4294967338U);
  ASSERT_TRUE(LQClient::recordClient("client42", 1));
  EXPECT_EQ(getClientId(), 4294967338U);
}

}  // namespace
