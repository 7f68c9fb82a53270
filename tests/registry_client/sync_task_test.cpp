// The entry points as a host calls them: found by their plain names in the built library, with the management
// server's own program at the other end where it serves well.
#include "lqregistry/sync_task.h"

#include <dlfcn.h>

#include <array>
#include <ctime>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/support/product_fixture.h"

namespace {

using test_support::BackgroundProgram;
using test_support::programPath;
using test_support::readFile;
using test_support::runProgram;

const std::string kTimerTag = "int RegistryDownload_OnTimer(LqPeriodicTaskStatus*)";

template <class Function>
Function* entryPoint(const char* name) {
  static void* const library = dlopen(LQ_LIB_DIR "/libLqRegistryClnt.so", RTLD_NOW);
  void* const symbol = library == nullptr ? nullptr : dlsym(library, name);
  if (symbol == nullptr) throw std::runtime_error(std::string("no entry point ") + name);
  return reinterpret_cast<Function*>(symbol);
}

class EntryPoints : public ProductTest {
 protected:
  EntryPoints() { join(); }
  ~EntryPoints() override { unsetenv("VELMOR_VM"); }

  LqPeriodicTaskStatus status_;
  decltype(RegistryDownload_OnStart)* onStart_ =
      entryPoint<decltype(RegistryDownload_OnStart)>("RegistryDownload_OnStart");
  decltype(RegistryDownload_OnTimer)* onTimer_ =
      entryPoint<decltype(RegistryDownload_OnTimer)>("RegistryDownload_OnTimer");
  decltype(fnLqSyncRegistryKeysInfo)* sync_ =
      entryPoint<decltype(fnLqSyncRegistryKeysInfo)>("fnLqSyncRegistryKeysInfo");
  decltype(updateRegistryKeys)* update_ = entryPoint<decltype(updateRegistryKeys)>("updateRegistryKeys");
  decltype(RegKeyGetVMName)* instanceName_ = entryPoint<decltype(RegKeyGetVMName)>("RegKeyGetVMName");
  decltype(GetModuleFileName)* commandLog_ = entryPoint<decltype(GetModuleFileName)>("GetModuleFileName");
};

// --- the task ----------------------------------------------------------------------------------------------

TEST_F(EntryPoints, StartingOnlyRecordsTheTime) {
  const oblog::Capture log;
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(onStart_(&status_), 0);
  EXPECT_GE(status_.getLastRunTime(), before);
  EXPECT_LE(status_.getLastRunTime(), std::time(nullptr));
  EXPECT_EQ(linesOf(log),
            std::vector<std::string>{"error|int RegistryDownload_OnStart(LqPeriodicTaskStatus*)|"
                                     "Skipping registry syncronize from space check on service start"});
}

TEST_F(EntryPoints, TheTimerRunsOnlyWhenEnabledAndJoinedAndAFailedPassIsMinusOne) {
  const std::string disabled = "7|" + kTimerTag + "|Registry sync is disbaled. Sync will not happen";
  const std::string enabled = "7|" + kTimerTag + "|Registry sync is enabled";
  const std::string notJoined =
      "2|" + kTimerTag + "|Skipping syncronize client Registry Keys call as client is not docked yet";
  const std::string failed = "error|" + kTimerTag + "|Failed to syncronize client Registry Keys";
  const struct {
    std::optional<std::string> enable;
    std::optional<std::string> antiChatter;
    std::vector<std::string> lines;
  } cases[] = {{std::nullopt, "0", {disabled}},
               {"0", "0", {disabled}},
               {"yes", "0", {disabled}},
               {"1", "1", {enabled, notJoined}},
               {"1", std::nullopt, {enabled, notJoined}},
               {"-1", "0", {enabled, failed}}};  // nobody listens
  for (const auto& c : cases) {
    setValue("EventManager", "bEnableRegistrySync", c.enable.value_or(""));
    if (!c.enable) removeValue("EventManager", "bEnableRegistrySync");
    setValue("Session", "bANTICHATTER", c.antiChatter.value_or(""));
    if (!c.antiChatter) removeValue("Session", "bANTICHATTER");
    const oblog::Capture log;
    EXPECT_EQ(onTimer_(&status_), c.lines.back() == failed ? -1 : 0);
    EXPECT_EQ(linesOf(log, kTimerTag), c.lines);
    EXPECT_EQ(linesOf(log).size() > c.lines.size(), c.lines.back() == failed) << "a pass leaves its lines";
  }
  EXPECT_EQ(status_.getLastRunTime(), 0);
}

// --- the real server ---------------------------------------------------------------------------------------

TEST_F(EntryPoints, APassAgainstTheManagementServer) {
  const std::string data = dir_ / "data";
  const auto overhub = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {programPath("overhub"), "--data", data});
    const auto result = runProgram(arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
  };
  overhub({"add-client", "client42", "--id", "42", "--server-host", address_, "--join-file", dir_ / "join"});
  const std::string joinText = readFile(dir_ / "join");
  const auto key = joinText.find_first_of("0123456789abcdef", joinText.find("session-key") + 11);
  setValue("Overhub", "sSESSIONKEY", joinText.substr(key, 2 * kSessionKeyBytes));
  setValue("Limits", "sGONE", "1");
  overhub({"set", "client42", "~/Limits", "nMAX", "20"});
  overhub({"set", "client42", "Limits", "sGONE", "--delete"});
  overhub({"set", "client42", "Trial", "bON", "1", "--until", "1"});
  overhub({"set", "@static", "Static", "sVALUE", "of all clients"});
  BackgroundProgram server({programPath("overhub"), "--data", data, "serve", "--listen", address_},
                           dir_ / "log");
  ASSERT_TRUE(server.waitForOutput("overhub ready")) << server.output();

  EXPECT_EQ(onTimer_(&status_), 0);
  EXPECT_EQ(valueOf("Limits", "nMAX"), "20");
  EXPECT_EQ(valueOf("Limits", "sGONE"), std::nullopt);
  EXPECT_EQ(valueOf("Trial", "bON"), std::nullopt);
  OBGui::RegistryTaskResp cached;
  EXPECT_EQ(cached.unserialize(readFile(cacheFile())), 0);
  EXPECT_EQ(cached.keys->size(), 1U);
  EXPECT_NE(overhub({"acks", "client42"}).find("taskStatus=3"), std::string::npos);

  overhub({"set", "client42", "Clients", "Other", "--type", "KEY"});
  EXPECT_TRUE(sync_()) << "the batch was handled, if not applied";
  EXPECT_NE(overhub({"acks", "client42"}).find("taskStatus=1"), std::string::npos);

  OBGui::KeyList keys;
  EXPECT_EQ(LqRegistryManagerClnt("").downLoadRegKeysFromServer(keys, 0, "", ""), 0);
  ASSERT_EQ(keys.size(), 1U);
  EXPECT_EQ(keys[0].value.get(), "of all clients");
  EXPECT_EQ(server.stop(), 0);
}

// --- a list handed over ------------------------------------------------------------------------------------

TEST_F(EntryPoints, AHandedListIsAppliedAndAnswered) {
  PlayedServer server(address_, sessionKey_, {taking(), taking(), taking(), refusing("busy")});
  OBGui::KeyList empty;
  EXPECT_TRUE(update_(&empty, 7));
  OBGui::KeyList keys{record("A", "sVALUE", "1"), record("A", "Trace", "1"), record("A", "Trace_UNTIL", "1")};
  EXPECT_TRUE(update_(&keys, 4294967295U));
  EXPECT_EQ(keys[1].deleteFlag, 1) << "the caller's list is changed";
  OBGui::KeyList failing{record("Clients", "Other", "", "KEY")};
  EXPECT_FALSE(update_(&failing, 7));
  const std::pair<std::int64_t, std::int64_t> expected[] = {
      {OBGui::kTaskSuccess, 7}, {OBGui::kTaskSuccess, 4294967295}, {OBGui::kTaskFailed, 7}};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto answer = server.message<OBGui::RegistryTaskResp>(i);
    EXPECT_EQ(std::pair(answer.taskStatus.get(), answer.client->clientId.get()), expected[i]) << i;
  }

  const oblog::Capture log;
  EXPECT_TRUE(update_(&keys, 7)) << "what counts is that it was applied";
  EXPECT_TRUE(hasLine(log, "error|updateRegistryAndSendResponse|Failed to send the response to the server"));
  EXPECT_EQ(server.sessions(), 4);
  EXPECT_FALSE(update_(nullptr, 7));
  EXPECT_TRUE(hasLine(log, "error|updateRegistryKeys|No key list given"));
  LQPI_Focus::setFocus(nullptr);
  EXPECT_FALSE(update_(&keys, 7));
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
  EXPECT_EQ(onTimer_(&status_), 0) << "enabled and joined are what the instance in focus is";
  OBGui::KeyList keys{record("A", "sHANDED", "2")};
  EXPECT_TRUE(update_(&keys, 7));
  EXPECT_EQ(server.sessions(), 3);
  const std::string chosen = "SOFTWARE/Velmor/Instance002/";
  EXPECT_EQ(valueOf(chosen + "A", "sVALUE"), "1");
  EXPECT_EQ(valueOf(chosen + "A", "sHANDED"), "2");
  EXPECT_EQ(valueOf(chosen + "EventManager", "dOBLOGDIR"), "/opt/x/Log_Files") << "its home is in focus, too";
  EXPECT_EQ(valueOf("A", "sVALUE"), std::nullopt);
  EXPECT_EQ(valueOf("A", "sHANDED"), std::nullopt);

  removeValue(chosen + "A", "sVALUE");
  EXPECT_EQ(additionalSettingsRefresh(), 1U);
  EXPECT_EQ(valueOf("A", "sVALUE"), "1") << "the refresh works on the instance in focus";
  EXPECT_EQ(valueOf(chosen + "A", "sVALUE"), std::nullopt);
}

// --- names -------------------------------------------------------------------------------------------------

TEST_F(EntryPoints, TheInstanceNameComesFromTheEnvironmentFirst) {
  std::array<char, kInstanceNameBuffer> name{};
  const auto found = [&] {
    name.fill('?');
    const unsigned result = instanceName_(name.data());
    EXPECT_EQ(result == kInstanceNameFound, name[0] != '?');
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
  EXPECT_FALSE(sync_());
  EXPECT_TRUE(linesOf(log).empty()) << "whoever called says so";
}

TEST_F(EntryPoints, TheCommandLogLiesInTheLogDirectory) {
  std::array<char, kInstanceNameBuffer + 11> path{};
  EXPECT_EQ(commandLog_(nullptr, path.data(), 0), 26);
  EXPECT_STREQ(path.data(), "/opt/x/Log_Files/PzCmd.log");
  removeValue("EventManager", "dOBLOGDIR");
  EXPECT_EQ(commandLog_(nullptr, path.data(), 0), 14);
  EXPECT_STREQ(path.data(), "/tmp/PzCmd.log");
  setValue("EventManager", "dOBLOGDIR", "/" + std::string(3000, 'd'));
  EXPECT_EQ(commandLog_(nullptr, path.data(), 0), 1023 + 10) << "cut where the buffer ends";

  std::string library;
  std::string function;
  entryPoint<decltype(PrepareLqSyncRegistryKeys)>("PrepareLqSyncRegistryKeys")(library, function);
  EXPECT_EQ(library + " " + function, "RegistryMgrSvr.dll GetRegKeysFromDB");
}

}  // namespace
