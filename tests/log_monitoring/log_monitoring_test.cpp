// The log-monitoring checks on machines of every kind, with a helper library that records its calls.
#include "lqregistry/LqSluiceLogMonitoringInterface.h"

#include <dlfcn.h>

#include "lqregistry/ClientProperties.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryFile.h"
#include "tests/support/product_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr auto checkLogs = LqSluiceLogMonitoringInterface_CheckLogMonitoringData;
constexpr auto processAlerts = LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule;
constexpr auto clientId = LqSluiceLogMonitoringInterface_getClientId;

const std::string kCheck = "LqSluiceLogMonitoringInterface_CheckLogMonitoringData|";
const std::string kAlert = "LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule|";
const std::string kIdOf = "LqSluiceLogMonitoringInterface_getClientId|";
constexpr const char* kProperties = "SOFTWARE/Velmor/ClientProperties/4294967338";
constexpr std::uint64_t kId = 4294967338;  // what is beyond 32 bits counts
constexpr const char* kServer = "7";       // a bit among others
constexpr const char* kClient = "4";

class LogMonitoring : public ProductTest {
 protected:
  LogMonitoring() {
    join();
    LQClient::recordClient("machine42", kId);
    setValue("Base", "dVELMORHOME", dir_ / "home/");
    fs::create_directories(dir_ / "home/LM");
    writeFile(workFile_, "");
    setenv("LQ_HELPER_RECORD", record_.c_str(), 1);
    useHelper("librecording_helper.so");
  }

  void useHelper(const std::string& library) const {
    fs::remove(helper_);
    fs::copy_file(std::string(LQ_LIB_DIR) + "/" + library, helper_);
  }

  // What the helper was called with since it was last asked.
  std::string calls() const {
    const std::string recorded = readFile(record_);
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
                    "] using Client Id = [4294967338] Completed.");
    return start;
  };
  const auto disabled = [](Lines start) {
    start.push_back("0|" + kCheck + "LM Pruning is diabled");
    return start;
  };
  // What it is, its platform type, Spoolhand, analytics, the switch, the lines, whether it is checked and
  // cleared.
  using Text = const char*;
  const std::tuple<Text, Text, Text, Text, Text, Lines, bool, bool> cases[] = {
      {"neither Spoolhand nor server", kClient, "0", "1", "0", without, false, false},
      {"Spoolhand without analytics", kClient, "1", "false", "0", with, false, false},
      {"Spoolhand with analytics", kClient, "1", "true", "0", completed(with), true, false},
      {"the same, switched off", kClient, "1", "true", "1", disabled(with), false, false},
      {"the server, whatever the property says", kServer, "0", "0", "no number", completed(without), true,
       true},
      {"the server, switched off", kServer, "0", "1", "-1", disabled(without), false, false}};
  for (const auto& [what, platform, spoolhand, analytics, switchedOff, expected, isChecked, isCleared] :
       cases) {
    SCOPED_TRACE(what);
    setValue("Machine", "nPLATFORMTYPE", platform);
    setValue("Packages", "bFULLSPOOLHAND", spoolhand);
    setValue(kProperties, "AnalyticSearchEngineEnabled", analytics);
    setValue("Spoolhand", "nDisableLMPrune", switchedOff);
    writeFile(workFile_, "");
    EXPECT_EQ(checkLogs(), 0);
    EXPECT_EQ(lines(), expected);
    EXPECT_EQ(calls(), isChecked ? "space 4294967338\n" : "");
    EXPECT_EQ(fs::exists(workFile_), !isCleared);
    EXPECT_EQ(dlopen(helper_.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "released after each call";
  }
}

TEST_F(LogMonitoring, ThePropertyIsReadAsYesOrNo) {
  setValue("Packages", "bFULLSPOOLHAND", "1");
  const std::pair<const char*, bool> cases[] = {{"True", true}, {"yes", true}, {"ON", true},  {"-3", true},
                                                {"", false},    {"00", false}, {"2 x", false}};
  for (const auto& [text, isEnabled] : cases) {
    setValue(kProperties, "AnalyticSearchEngineEnabled", text);
    EXPECT_EQ(checkLogs(), 0);
    EXPECT_EQ(calls(), isEnabled ? "space 4294967338\n" : "") << text;
  }
  removeValue(kProperties, "AnalyticSearchEngineEnabled");
  EXPECT_EQ(checkLogs(), 0);
  EXPECT_EQ(calls(), "");

  const ClientProperties properties(kId);
  ApplNativeProperty property;
  const auto read = [&](int type, int flag) {
    return properties.getNativeProperty("sABSENT", type, "yes", flag, property) == 0;
  };
  EXPECT_TRUE(read(kPropertyBoolean, 0) && property.getBooleanValue()) << "the default's text";
  EXPECT_FALSE(read(kPropertyBoolean + 1, 0) || read(kPropertyBoolean, 1));
  lqregistry::UseFile(dir_.path().string());  // a directory is no registry
  EXPECT_FALSE(read(kPropertyBoolean, 0)) << "what cannot be read is not absent";
}

TEST_F(LogMonitoring, AHelperThatCannotBeUsedFailsTheCallAndClearsNothing) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  setValue("Packages", "nPACKAGE_1306", "1");
  const std::tuple<int (*)(), std::string, std::string> entries[] = {
      {checkLogs, kCheck, "LMSpaceCheck"}, {processAlerts, kAlert, "processLogMonitoringAlertRule"}};
  for (const auto& [run, tag, procedure] : entries) {
    const std::string unloadable = "0|" + tag + "Failed to load library [";
    // How each comes about, and how the line that tells begins.
    const std::pair<std::function<void()>, std::string> faults[] = {
        {[this] { useHelper("libforeign_library.so"); }, "0|" + tag + "Failed to load procedure [" +
                                                             procedure + "] from library [" + helper_ +
                                                             "], error[" + helper_},
        {[this] {
           useHelper("librecording_helper.so");
           setenv("LQ_HELPER_RECORD", "/", 1);  // where it cannot record, it throws
         },
         "error|" + tag + "Procedure [" + procedure + "] of library [" + helper_ +
             "] ended with an exception"},
        {[this] { fs::permissions(helper_, fs::perms::group_write, fs::perm_options::add); },
         unloadable + helper_ + "] error [" + helper_ + ": not trusted"},
        {[] { setValue("Base", "dBASEHOME", ""); }, unloadable + "/libLqLMHelper.so] error ["},
        {[] { removeValue("Base", "dBASEHOME"); }, unloadable + "/libLqLMHelper.so] error ["}};
    for (const auto& [arrange, start] : faults) {
      arrange();
      EXPECT_EQ(run(), 1);
      EXPECT_TRUE(hasLine(log_, start));
      EXPECT_FALSE(hasLine(log_, "0|" + tag + "Call to procedure"));
      log_.Clear();
    }
    setValue("Base", "dBASEHOME", dir_.path().string());
  }
  EXPECT_TRUE(fs::exists(workFile_));
}

TEST_F(LogMonitoring, WithoutAHomeNothingIsCleared) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  for (const bool isEmpty : {true, false}) {
    setValue("Base", "dVELMORHOME", "");  // below it, the work directory would be that of the root
    if (!isEmpty) removeValue("Base", "dVELMORHOME");
    EXPECT_EQ(checkLogs(), 1);
    EXPECT_EQ(calls(), "space 4294967338\n");
    EXPECT_EQ(lines().back(), "error|" + kCheck + "Failed to identify velmor home directory.");
  }
}

TEST_F(LogMonitoring, OnlyTheFilesOfThatNameAreCleared) {
  setValue("Machine", "nPLATFORMTYPE", kServer);
  const std::string folder = dir_ / "home/LM/";
  const Lines kept = {dir_ / "LMoutside", folder + "lm1", folder + "L1", folder + "XLM1",
                      folder + "LMfolder/LM1"};
  const Lines gone = {workFile_, folder + "LM", folder + "LM two\nlines.log"};
  fs::create_directories(folder + "LMfolder");
  for (const Lines& files : {kept, gone})
    for (const std::string& file : files) writeFile(file, "");
  fs::create_symlink(kept[0], folder + "LMlink");

  EXPECT_EQ(checkLogs(), 0);
  for (const std::string& file : kept) EXPECT_TRUE(fs::exists(file)) << file;
  for (const std::string& file : gone) EXPECT_FALSE(fs::exists(file)) << file;
  EXPECT_TRUE(fs::is_symlink(folder + "LMlink"));

  fs::remove_all(folder);
  EXPECT_EQ(checkLogs(), 0) << "there being nothing to clear is no failure";
}

TEST_F(LogMonitoring, TheAlertRuleNeedsTheIndexServer) {
  const std::string present = "10|" + kAlert + "Index Server is installed";
  setValue("Packages", "nPACKAGE_1306", "0");
  EXPECT_EQ(processAlerts(), 1);
  EXPECT_EQ(lines(), Lines{"10|" + kAlert + "Index Server is not installed"});
  EXPECT_EQ(calls(), "");

  setValue("Packages", "nPACKAGE_1306", "1");
  EXPECT_EQ(processAlerts(), 0);
  EXPECT_EQ(lines(), (Lines{present, "0|" + kAlert +
                                         "Call to procedure [processLogMonitoringAlertRule] from library [" +
                                         helper_ + "]"}));
  EXPECT_EQ(calls(), "alert\n");

  removeValue("Base", "dVELMORHOME");
  setValue("Packages", "nPACKAGE_1306", "0");  // the directory is asked for first
  EXPECT_EQ(processAlerts(), 1);
  EXPECT_EQ(lines(), Lines{"0|" + kAlert + "Failed to get the velmor directory path"});
}

TEST_F(LogMonitoring, TheClientIdIsLookedUpUntilItIsKnownAndTheChecksGoOn) {
  removeValue("Machine", "sPHYSICALNAME");
  EXPECT_EQ(clientId(), 0U);
  EXPECT_EQ(lines(), Lines{"error|" + kIdOf + "Failed to get the local client name."});

  // The name is cut, and a check goes on with the id 0; the helper that is delivered says that it ran.
  setValue("Machine", "sPHYSICALNAME", std::string(300, 'm'));
  setValue("Machine", "nPLATFORMTYPE", kServer);
  useHelper("libLqLMHelper.so");
  EXPECT_EQ(checkLogs(), 0);
  EXPECT_TRUE(hasLine(log_, "error|" + kIdOf + "Failed to get the local client Id for client: [" +
                                std::string(256, 'm') + "]"));
  EXPECT_TRUE(hasLine(log_, "0|" + kCheck + "Call to procedure [LMSpaceCheck] from library [" + helper_ +
                                "] using Client Id = [0] Completed."));
  EXPECT_TRUE(hasLine(log_, "plain|LMSpaceCheck|Log-space check ran for client [0]"));
  setValue("Packages", "nPACKAGE_1306", "1");
  EXPECT_EQ(processAlerts(), 0);
  EXPECT_TRUE(hasLine(log_, "plain|processLogMonitoringAlertRule|Log-monitoring alert rules were processed"));

  setValue("Machine", "sPHYSICALNAME", "machine42");
  EXPECT_EQ(clientId(), kId);
  removeValue("Machine", "sPHYSICALNAME");
  EXPECT_EQ(clientId(), kId) << "known now";
}

}  // namespace
