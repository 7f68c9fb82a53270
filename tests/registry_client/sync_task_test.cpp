// The entry points.
#include "lqregistry/sync_task.h"

#include <array>
#include <ctime>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kTimerTag = "int RegistryDownload_OnTimer(LqPeriodicTaskStatus*)";

class EntryPoints : public ProductTest {
 protected:
  EntryPoints() { join(); }
  ~EntryPoints() override { unsetenv("VELMOR_VM"); }

  LqPeriodicTaskStatus status_;
};

// --- the task ----------------------------------------------------------------------------------------------

TEST_F(EntryPoints, StartingOnlyRecordsTheTime) {
  const oblog::Capture log;
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(RegistryDownload_OnStart(&status_), 0);
  EXPECT_TRUE(before <= status_.getLastRunTime() && status_.getLastRunTime() <= std::time(nullptr));
  EXPECT_EQ(linesOf(log), Lines{"error|int RegistryDownload_OnStart(LqPeriodicTaskStatus*)|"
                                "Skipping registry syncronize from space check on service start"});
}

TEST_F(EntryPoints, TheTimerRunsOnlyWhenEnabledAndJoinedAndAFailedPassIsMinusOne) {
  const std::string disabled = "7|" + kTimerTag + "|Registry sync is disbaled. Sync will not happen";
  const std::string enabled = "7|" + kTimerTag + "|Registry sync is enabled";
  const std::string notJoined =
      "2|" + kTimerTag + "|Skipping syncronize client Registry Keys call as client is not docked yet";
  const std::string failed = "error|" + kTimerTag + "|Failed to syncronize client Registry Keys";
  const std::tuple<std::optional<std::string>, std::optional<std::string>, Lines> cases[] = {
      {std::nullopt, "0", {disabled}},
      {"0", "0", {disabled}},
      {"yes", "0", {disabled}},
      {"1", "1", {enabled, notJoined}},
      {"1", std::nullopt, {enabled, notJoined}},
      {"-1", "0", {enabled, failed}}};  // nobody listens
  for (const auto& [enable, antiChatter, lines] : cases) {
    setValue("EventManager", "bEnableRegistrySync", enable.value_or(""));
    if (!enable) removeValue("EventManager", "bEnableRegistrySync");
    setValue("Session", "bANTICHATTER", antiChatter.value_or(""));
    if (!antiChatter) removeValue("Session", "bANTICHATTER");
    const oblog::Capture log;
    EXPECT_EQ(RegistryDownload_OnTimer(&status_), lines.back() == failed ? -1 : 0);
    EXPECT_EQ(linesOf(log, kTimerTag), lines);
    EXPECT_EQ(linesOf(log).size() > lines.size(), lines.back() == failed) << "a pass leaves its lines";
  }
  EXPECT_EQ(status_.getLastRunTime(), 0);
  const auto server = serve({answering(batchText({record("Clients", "Other", "", "KEY")})), taking()});
  EXPECT_TRUE(fnLqSyncRegistryKeysInfo()) << "the batch was handled, if not applied";
  EXPECT_EQ(server->message<OBGui::RegistryTaskResp>(1).taskStatus, OBGui::kTaskFailed);
}

// --- a list handed over ------------------------------------------------------------------------------------

TEST_F(EntryPoints, AHandedListIsAppliedAndAnswered) {
  PlayedServer server(address_, sessionKey_, {taking(), taking(), taking(), refusing("busy")});
  OBGui::KeyList empty;
  EXPECT_TRUE(updateRegistryKeys(&empty, 7));
  OBGui::KeyList keys{record("A", "sVALUE", "1"), record("A", "Trace", "1"), record("A", "Trace_UNTIL", "1")};
  EXPECT_TRUE(updateRegistryKeys(&keys, 4294967295U));
  EXPECT_EQ(keys[1].deleteFlag, 1) << "the caller's list is changed";
  OBGui::KeyList failing{record("Clients", "Other", "", "KEY")};
  EXPECT_FALSE(updateRegistryKeys(&failing, 7));
  const std::pair<std::int64_t, std::int64_t> expected[] = {
      {OBGui::kTaskSuccess, 7}, {OBGui::kTaskSuccess, 4294967295}, {OBGui::kTaskFailed, 7}};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto answer = server.message<OBGui::RegistryTaskResp>(i);
    EXPECT_EQ(std::pair(answer.taskStatus.get(), answer.client->clientId.get()), expected[i]) << i;
  }

  const oblog::Capture log;
  EXPECT_TRUE(updateRegistryKeys(&keys, 7)) << "what counts is that it was applied";
  EXPECT_TRUE(hasLine(log, "error|updateRegistryAndSendResponse|Failed to send the response to the server"));
  EXPECT_EQ(server.sessions(), 4);
  EXPECT_FALSE(updateRegistryKeys(nullptr, 7));
  EXPECT_TRUE(hasLine(log, "error|updateRegistryKeys|No key list given"));
  LQPI_Focus::setFocus(nullptr);
  EXPECT_FALSE(updateRegistryKeys(&keys, 7));
  EXPECT_TRUE(hasLine(log, "error|updateRegistryKeys|Failed to get VM name"));
  EXPECT_EQ(server.sessions(), 4);
}

TEST_F(EntryPoints, TheEnvironmentChoosesTheInstanceThatPassesAndListsWorkOnAndNothingElse) {
  LQPI_Focus::setFocus("Instance002");
  join();
  setValue("Base", "dVELMORHOME", "/opt/other");
  setValue("EventManager", "bEnableRegistrySync", "0");
  setValue("Session", "bANTICHATTER", "1");
  LQPI_Focus::setFocus("Instance001");
  join();
  setenv("VELMOR_VM", "Instance002", 1);
  PlayedServer server(
      address_, sessionKey_,
      {answering(batchText({record("A", "sVALUE", "1"), removal("EventManager", "dOBLOGDIR")})), taking(),
       taking()});
  EXPECT_EQ(RegistryDownload_OnTimer(&status_), 0) << "enabled and joined are what the instance in focus is";
  LQPI_Session chosenSession(0, 1);
  chosenSession.setFocus("Instance002");
  EXPECT_EQ(chosenSession.IsAntiChatterFlagOn(), 1) << "who names another instance is told of that one";
  OBGui::KeyList keys{record("A", "sHANDED", "1")};
  EXPECT_TRUE(updateRegistryKeys(&keys, 7));
  EXPECT_EQ(server.sessions(), 3);
  const std::string chosen = "SOFTWARE/Velmor/Instance002/";
  EXPECT_EQ(valueOf(chosen + "EventManager", "dOBLOGDIR"), "/opt/x/Log_Files") << "its home is in focus, too";
  EXPECT_EQ(valuesOf(chosen + "A", {"sVALUE", "sHANDED"}), "1 1");
  EXPECT_EQ(valuesOf("A", {"sVALUE", "sHANDED"}), "- -");
  removeValue(chosen + "A", "sVALUE");
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(valueOf("A", "sVALUE"), "1") << "the refresh works on the instance in focus";
  EXPECT_EQ(valueOf(chosen + "A", "sVALUE"), std::nullopt);
}

// --- names -------------------------------------------------------------------------------------------------

TEST_F(EntryPoints, TheInstanceNameComesFromTheEnvironmentFirst) {
  std::array<char, kInstanceNameBuffer + 1> name{};  // and a byte that is not the buffer's
  const auto found = [&] {
    name.fill('?');
    const unsigned result = RegKeyGetVMName(name.data());
    EXPECT_TRUE((result == kInstanceNameFound) == (name[0] != '?') && name.back() == '?');
    return result;
  };
  EXPECT_EQ(found(), 4U);
  EXPECT_STREQ(name.data(), "Instance001");
  for (const std::string& set : {std::string("Instance002"), std::string(), std::string(1023, 'v')}) {
    setenv("VELMOR_VM", set.c_str(), 1);
    EXPECT_EQ(found(), 4U);
    EXPECT_EQ(name.data(), set);
  }
  setenv("VELMOR_VM", std::string(1024, 'v').c_str(), 1);
  EXPECT_EQ(found(), 5U) << "longer than the caller's buffer";

  unsetenv("VELMOR_VM");
  LQPI_Focus::setFocus(nullptr);
  EXPECT_EQ(found(), 5U);
  const oblog::Capture log;
  EXPECT_FALSE(fnLqSyncRegistryKeysInfo());
  EXPECT_TRUE(linesOf(log).empty()) << "whoever called says so";
}

TEST_F(EntryPoints, TheCommandLogLiesInTheLogDirectory) {
  std::array<char, kInstanceNameBuffer + 11> path{};
  EXPECT_EQ(GetModuleFileName(nullptr, path.data(), 0), 26);
  EXPECT_STREQ(path.data(), "/opt/x/Log_Files/PzCmd.log");
  removeValue("EventManager", "dOBLOGDIR");
  EXPECT_EQ(GetModuleFileName(nullptr, path.data(), 0), 14);
  EXPECT_STREQ(path.data(), "/tmp/PzCmd.log");
  setValue("EventManager", "dOBLOGDIR", "/" + std::string(3000, 'd'));
  EXPECT_EQ(GetModuleFileName(nullptr, path.data(), 0), 1023 + 10) << "cut where the buffer ends";

  std::string library;
  std::string function;
  PrepareLqSyncRegistryKeys(library, function);
  EXPECT_EQ(library + " " + function, "RegistryMgrSvr.dll GetRegKeysFromDB");
}

}  // namespace
