// The log-monitoring checks on machines of every kind, with a helper library that records its calls.
#include "log_monitoring/LqSluiceLogMonitoringInterface.h"

#include <dlfcn.h>

#include <filesystem>
#include <thread>

#include "platform/LQClient.h"
#include "tests/support/product_fixture.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr auto checkLogs = LqSluiceLogMonitoringInterface_CheckLogMonitoringData;
constexpr auto processAlerts = LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule;
constexpr auto clientId = LqSluiceLogMonitoringInterface_getClientId;

const std::string kCheck = "LqSluiceLogMonitoringInterface_CheckLogMonitoringData|";
const std::string kAlert = "LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule|";
const std::string kIdOf = "LqSluiceLogMonitoringInterface_getClientId|";
constexpr const char* kProperties = "SOFTWARE/Velmor/ClientProperties/42";
constexpr const char* kServer = "5";
constexpr const char* kClient = "4";

class LogMonitoring : public ProductTest {
 protected:
  LogMonitoring() {
    join();
    LQClient::recordClient("machine42", kClientId);
    setValue("Base", "dVELMORHOME", dir_ / "home/");
    fs::create_directories(dir_ / "home/LM");
    test_support::writeFile(workFile_, "");
    setenv("LQ_HELPER_RECORD", record_.c_str(), 1);
    useHelper("librecording_helper.so");
  }

  void useHelper(const std::string& library) const {
    fs::remove(helper_);
    fs::create_symlink(std::string(LQ_LIB_DIR) + "/" + library, helper_);
  }

  // What the helper was called with since it was last asked.
  std::string calls() const {
    const std::string recorded = test_support::readFile(record_);
    fs::remove(record_);
    return recorded;
  }

  // The lines since they were last asked for; those with a level all carry the same context.
  Lines lines() {
    for (const oblog::Line& line : log_.Lines())
      EXPECT_EQ(line.context, line.kind == oblog::Kind::kLevelled ? -123456 : 0) << line.text;
    Lines all = linesOf(log_);
    log_.Clear();
    return all;
  }

  // The faults that a helper library can have: how each comes about, and the line that tells, after the tag.
  struct HelperFault {
    std::function<void()> arrange;
    std::string start;
  };
  std::vector<HelperFault> helperFaults(const std::string& procedure) {
    const std::string unloadable = "Failed to load library [" + helper_ + "] error [";
    return {{[this] { useHelper("libforeign_library.so"); },
             "Failed to load procedure [" + procedure + "] from library [" + helper_ + "], error[" + helper_},
            {[this] { fs::remove(helper_); }, unloadable + helper_},
            {[this] { test_support::writeFile(helper_, "not a library"); }, unloadable + helper_},
            {[] { removeValue("Base", "dBASEHOME"); }, "Failed to load library [/libLqLMHelper.so] error ["}};
  }

  std::string helper_ = dir_ / "libLqLMHelper.so";
  std::string record_ = dir_ / "calls";
  std::string workFile_ = dir_ / "home/LM/LM1";
  oblog::Capture log_;
};

TEST_F(LogMonitoring, TheKindOfMachineDecidesWhatTheCheckDoes) {
  const Lines without = {"4|" + kCheck + "Spoolhand is installed 0"};
  const Lines with = {"4|" + kCheck + "Spoolhand is installed 1"};
  const auto completed = [this](Lines start) {
    start.push_back("4|" + kCheck + "Analytics engine is enabled");
    start.push_back("0|" + kCheck + "Call to procedure [LMSpaceCheck] from library [" + helper_ +
                    "] using Client Id = [42] Completed.");
    return start;
  };
  const auto disabled = [](Lines start) {
    start.push_back("0|" + kCheck + "LM Pruning is diabled");
    return start;
  };
  const struct {
    const char* what;
    const char* platform;
    const char* spoolhand;
    const char* analytics;
    const char* disabled;
    Lines lines;
    bool isChecked;
    bool isCleared;
  } cases[] = {
      {"neither Spoolhand nor server", kClient, "0", "1", "0", without, false, false},
      {"Spoolhand without analytics", kClient, "1", "false", "0", with, false, false},
      {"Spoolhand with analytics", kClient, "1", "true", "0", completed(with), true, false},
      {"the same, switched off", kClient, "1", "true", "1", disabled(with), false, false},
      {"the server, whatever the property says", kServer, "0", "0", "0", completed(without), true, true},
      {"the server with Spoolhand", kServer, "1", "1", "no number", completed(with), true, true},
      {"the server, switched off", kServer, "0", "1", "-1", disabled(without), false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    setValue("Machine", "nPLATFORMTYPE", c.platform);
    setValue("Packages", "bFULLSPOOLHAND", c.spoolhand);
    setValue(kProperties, "AnalyticSearchEngineEnabled", c.analytics);
    setValue("Spoolhand", "nDisableLMPrune", c.disabled);
    test_support::writeFile(workFile_, "");
    EXPECT_EQ(checkLogs(), 0);
    EXPECT_EQ(lines(), c.lines);
    EXPECT_EQ(calls(), c.isChecked ? "space 42\n" : "");
    EXPECT_EQ(fs::exists(workFile_), !c.isCleared);
    EXPECT_EQ(dlopen(helper_.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "released after each call";
  }
}

TEST_F(LogMonitoring, ThePropertyIsReadAsYesOrNo) {
  setValue("Packages", "bFULLSPOOLHAND", "1");
  EXPECT_EQ(checkLogs(), 0);
  EXPECT_EQ(calls(), "") << "no such property";
  const std::pair<const char*, bool> cases[] = {
      {"1", true},  {"True", true}, {"yes", true}, {"ON", true},   {"-3", true},      {"", false},
      {"0", false}, {"00", false},  {"no", false}, {"2 x", false}, {"truely", false}, {"42", true}};
  for (const auto& [text, isEnabled] : cases) {
    setValue(kProperties, "AnalyticSearchEngineEnabled", text);
    EXPECT_EQ(checkLogs(), 0);
    EXPECT_EQ(calls(), isEnabled ? "space 42\n" : "") << text;
  }
}

TEST_F(LogMonitoring, AFailedCheckLeavesTheWorkDirectoryAlone) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  for (const auto& [arrange, start] : helperFaults("LMSpaceCheck")) {
    arrange();
    EXPECT_EQ(checkLogs(), 1);
    const Lines all = lines();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_TRUE(all.back().starts_with("0|" + kCheck + start)) << all.back();
    EXPECT_TRUE(fs::exists(workFile_));
  }
  setValue("Base", "dBASEHOME", dir_.path().string());
  useHelper("librecording_helper.so");
  removeValue("Base", "dVELMORHOME");
  EXPECT_EQ(checkLogs(), 1);
  EXPECT_EQ(calls(), "space 42\n");
  EXPECT_EQ(lines().back(), "error|" + kCheck + "Failed to identify velmor home directory.");
}

TEST_F(LogMonitoring, OnlyTheFilesOfThatNameAreCleared) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  const std::string outside = dir_ / "LMoutside";
  const Lines kept = {outside, dir_ / "home/LM/lm1", dir_ / "home/LM/XLM1", dir_ / "home/LM/.LM",
                      dir_ / "home/LM/LMfolder/LM1"};
  fs::create_directories(dir_ / "home/LM/LMfolder");
  for (const std::string& file : kept) test_support::writeFile(file, "");
  fs::create_symlink(outside, dir_ / "home/LM/LMlink");
  fs::create_directory_symlink(dir_ / "home/LM/LMfolder", dir_ / "home/LM/LMfolderlink");
  const Lines gone = {workFile_, dir_ / "home/LM/LM", dir_ / "home/LM/LM two\nlines.log"};
  for (const std::string& file : gone) test_support::writeFile(file, "");

  EXPECT_EQ(checkLogs(), 0);
  for (const std::string& file : kept) EXPECT_TRUE(fs::exists(file)) << file;
  for (const std::string& file : gone) EXPECT_FALSE(fs::exists(file)) << file;
  EXPECT_TRUE(fs::is_symlink(dir_ / "home/LM/LMlink"));

  fs::remove_all(dir_ / "home/LM");
  EXPECT_EQ(checkLogs(), 0) << "there being nothing to clear is no failure";
}

TEST_F(LogMonitoring, TheAlertRuleNeedsTheIndexServer) {
  const Lines absent = {"10|" + kAlert + "Index Server is not installed"};
  const std::string present = "10|" + kAlert + "Index Server is installed";
  EXPECT_EQ(processAlerts(), 1);
  EXPECT_EQ(lines(), absent);
  setValue("Packages", "nPACKAGE_1306", "0");
  EXPECT_EQ(processAlerts(), 1);
  EXPECT_EQ(lines(), absent);
  EXPECT_EQ(calls(), "");

  setValue("Packages", "nPACKAGE_1306", "1");
  EXPECT_EQ(processAlerts(), 0);
  EXPECT_EQ(lines(), (Lines{present, "0|" + kAlert +
                                         "Call to procedure [processLogMonitoringAlertRule] from library [" +
                                         helper_ + "]"}));
  EXPECT_EQ(calls(), "alert\n");

  for (const auto& [arrange, start] : helperFaults("processLogMonitoringAlertRule")) {
    arrange();
    EXPECT_EQ(processAlerts(), 1);
    const Lines all = lines();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all.front(), present);
    EXPECT_TRUE(all.back().starts_with("0|" + kAlert + start)) << all.back();
  }
  removeValue("Base", "dVELMORHOME");
  EXPECT_EQ(processAlerts(), 1);
  EXPECT_EQ(lines(), Lines{"0|" + kAlert + "Failed to get the velmor directory path"});
}

TEST_F(LogMonitoring, TheClientIdIsLookedUpUntilItIsKnown) {
  removeValue("Machine", "sPHYSICALNAME");
  EXPECT_EQ(clientId(), 0U);
  EXPECT_EQ(lines(), Lines{"error|" + kIdOf + "Failed to get the local client name."});

  // The name is cut, and a check goes on with the id 0.
  setValue("Machine", "sPHYSICALNAME", std::string(300, 'm'));
  setValue("Machine", "nPLATFORMTYPE", kServer);
  EXPECT_EQ(checkLogs(), 0);
  EXPECT_TRUE(hasLine(log_, "error|" + kIdOf + "Failed to get the local client Id for client: [" +
                                std::string(256, 'm') + "]"));
  EXPECT_TRUE(hasLine(log_, "0|" + kCheck + "Call to procedure [LMSpaceCheck] from library [" + helper_ +
                                "] using Client Id = [0] Completed."));
  EXPECT_EQ(calls(), "space 0\n");
  lines();

  setValue("Machine", "sPHYSICALNAME", "machine42");
  EXPECT_EQ(clientId(), 42U);
  // Known now: neither the registry nor the lock is needed.
  removeValue("Machine", "sPHYSICALNAME");
  const LqCriticalSectionLock lock(criticalSecForClientId);
  unsigned long id = 0;
  std::thread([&id] { id = clientId(); }).join();
  EXPECT_EQ(id, 42U);
  EXPECT_EQ(lines(), Lines());
}

TEST_F(LogMonitoring, ThreadsCheckAtOnce) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  setValue("Packages", "nPACKAGE_1306", "1");
  constexpr int kThreads = 4;
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back(
        [&failures] { failures += checkLogs() + processAlerts() + (clientId() == 42 ? 0 : 1); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(calls().size(), kThreads * std::string("space 42\nalert\n").size());
}

TEST_F(LogMonitoring, TheHelperThatIsDeliveredSaysThatItRan) {
  useHelper("libLqLMHelper.so");
  setValue("Machine", "nPLATFORMTYPE", kServer);
  setValue("Packages", "nPACKAGE_1306", "1");
  EXPECT_EQ(checkLogs(), 0);
  EXPECT_EQ(processAlerts(), 0);
  EXPECT_TRUE(hasLine(log_, "plain|LMSpaceCheck|Log-space check ran for client [42]"));
  EXPECT_TRUE(hasLine(log_, "plain|processLogMonitoringAlertRule|Log-monitoring alert rules were processed"));
}

}  // namespace
