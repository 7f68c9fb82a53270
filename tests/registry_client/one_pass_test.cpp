// Downloads and refreshes one at a time: each refuses to begin beside another pass, says who is in its way,
// and leaves cache and registry alone.
#include <chrono>

#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/support/product_fixture.h"

namespace {

class OnePass : public ProductTest {
 protected:
  OnePass() {
    join();
    LqPassLock::useWait(std::chrono::milliseconds(20));
  }
  void cache(const OBGui::KeyList& keys) const { writeFile(cacheFile(), batchText(keys)); }
  // The last line of a refresh on a thread of its own.
  static std::string refreshed() {
    const oblog::Capture log;
    std::thread([] { EXPECT_EQ(additionalSettingsRefresh(), 1U); }).join();
    return linesOf(log, "additionalSettingsRefresh").back();
  }
  static void expectRefused(const std::string& line, const std::string& holder) {
    EXPECT_TRUE(line.starts_with("error|additionalSettingsRefresh|The refresh was not begun: ") &&
                contains(line, holder))
        << line;
  }
};

TEST_F(OnePass, BesideAnotherPassNeitherBegins) {
  cache({record("A", "sCACHED", "1"), removal("A", "sREMOVED")});
  const std::string before = readFile(cacheFile());
  {
    const LqPassLock held("somebody");
    expectRefused(refreshed(), "(somebody, since");
    EXPECT_EQ(valueOf("A", "sCACHED"), std::nullopt);
    EXPECT_EQ(readFile(cacheFile()), before);

    PlayedServer server(address_, sessionKey_, {answering(batchText({record("A", "sDOWNLOADED", "1")}))});
    const oblog::Capture log;
    std::thread([] { EXPECT_EQ(LqRegistryManagerClnt("").downLoadAndUpdateClient(), 3U); }).join();
    EXPECT_TRUE(
        hasLine(log, "error|LqRegistryManagerClnt::downLoadAndUpdateClient|The download was not begun: "));
    EXPECT_EQ(server.sessions(), 0);

    // A push takes the registry's own lock only.
    OBGui::RegistryTaskResp push;
    push.keys.edit().push_back(record("A", "sPUSHED", "1"));
    EXPECT_EQ(LqRegistryManagerClnt("").serverRequestHandler(push), 1U);
    EXPECT_EQ(valueOf("A", "sPUSHED"), "1");
  }
  {
    // Nor within a batch of the caller, who may still undo what callbacks would be told of.
    lqregistry::WriteBatch batch;
    EXPECT_TRUE(contains(LqPassLock("a pass").reason(), "in a batch that has not ended"));
    OBGui::KeyList keys{record("A", "sIN_BATCH", "1")};
    LqRegistryManagerClnt client("");
    EXPECT_TRUE(client.updateRegistryKeysForClient(keys) == 3 && client.regStatus == 8);
    EXPECT_EQ(valueOf("A", "sIN_BATCH"), std::nullopt);
  }
  EXPECT_TRUE(contains(refreshed(), "Cleaning temporary key")) << "only the line of every refresh";
  EXPECT_EQ(valueOf("A", "sCACHED"), "1");
}

TEST_F(OnePass, ADownloadExcludesTheRefreshFromItsRequestToItsAcknowledgement) {
  Lines refused;
  const auto refreshBefore = [&refused](const PlayedServer::Script& answer) {
    return [&refused, answer](PlayedServer::Stage& stage) {
      refused.push_back(refreshed());
      answer(stage);
    };
  };
  PlayedServer server(
      address_, sessionKey_,
      {refreshBefore(answering(batchText({record("A", "sNEW", "1")}))), refreshBefore(taking())});
  EXPECT_EQ(LqRegistryManagerClnt("").downLoadAndUpdateClient(), 0U);
  ASSERT_EQ(refused.size(), 2U);
  for (const auto& line : refused) expectRefused(line, "(download, since");
  EXPECT_TRUE(contains(refreshed(), "Cleaning temporary key")) << "over when the download is";
}

}  // namespace
