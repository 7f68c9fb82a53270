// Applying key lists: what is written and what removed, who is told of it, and what happens when the registry
// cannot be written.
#include <algorithm>
#include <ctime>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "records/expiry.h"
#include "tests/platform/registry_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

// What the change callbacks saw: the record, and the value in the registry file, as another process sees it.
using Change = std::pair<std::string, std::string>;
std::mutex changesMutex;
std::vector<Change> changes;
std::string registryOfCallbacks;

void noteChange(OBGui::RegistryKeyInfo key) {
  const auto seen = runProgram({programPath("lqreg"), "--registry", registryOfCallbacks, "--instance",
                                "Instance001", "get", key.keyPath.get(), key.valueName.get()});
  const std::lock_guard lock(changesMutex);
  changes.push_back({key.valueName.get(), seen.exitCode == 0 ? seen.out : "gone"});
}

class Apply : public ProductTest {
 protected:
  Apply() {
    registryOfCallbacks = registryFile_;
    changes.clear();
  }
  ~Apply() override {
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();
    LqRegistryChangeMgr::callBackMaps.clear();
  }

  int apply(OBGui::KeyList keys) { return client_.updateRegistryKeysForClient(keys); }
  static void watch(const std::string& keyPath, const std::string& valueName) {
    LqRegistryChangeMgr::GetInstance()->Register(keyPath, valueName, &noteChange);
  }
  // The changes that were told, in the order of their names.
  static std::vector<Change> told() {
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();
    const std::lock_guard lock(changesMutex);
    std::sort(changes.begin(), changes.end());
    return changes;
  }

  LqRegistryManagerClnt client_{"Instance001"};
};

// --- written or removed ------------------------------------------------------------------------------------

TEST_F(Apply, AnEmptyListTouchesNothing) {
  const oblog::Capture log;
  EXPECT_EQ(apply({}), 0);
  EXPECT_TRUE(
      hasLine(log, "10|LqRegistryManager::updateRegistryKeysForClient|NO RECODRDS FOR CLIENT REGISTRY KEYS"));
  EXPECT_FALSE(std::filesystem::exists(registryFile_));
  EXPECT_TRUE(LqRegistryChangeMgr::isThreadPoolInitialized) << "it starts with the first list";
}

TEST_F(Apply, FlagsDecideBetweenWritingAndRemoving) {
  constexpr std::int64_t kUnset = -1000;
  for (const std::int64_t deleteFlag : {kUnset, std::int64_t{0}, std::int64_t{1}, std::int64_t{2}})
    for (const std::int64_t enabledFlag : {kUnset, std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}}) {
      setValue("Flags", "sVALUE", "before");
      OBGui::RegistryKeyInfo key = record("Flags", "sVALUE", "after");
      key.deleteFlag = deleteFlag;
      if (deleteFlag == kUnset) key.deleteFlag.clear();
      key.enabledFlag = enabledFlag;
      if (enabledFlag == kUnset) key.enabledFlag.clear();
      EXPECT_EQ(apply({key}), 0);
      const bool stays = deleteFlag != 1 && enabledFlag != 0 && enabledFlag != kUnset;
      EXPECT_EQ(valueOf("Flags", "sVALUE"), stays ? std::optional<std::string>("after") : std::nullopt)
          << deleteFlag << " " << enabledFlag;
    }
}

TEST_F(Apply, ExpiredValuesGoWithTheirCompanionsWhateverTheirPath) {
  const std::string past = std::to_string(std::time(nullptr) - 10);
  const std::string future = std::to_string(std::time(nullptr) + 1000);
  const std::tuple<const char*, OBGui::KeyList, std::vector<bool>> cases[] = {
      {"across paths",
       {record("B", "Trace_UNTIL", past), record("A", "Trace", "1"), record("", "Trace", "1")},
       {false, false, false}},
      {"empty", {record("A", "Trace_UNTIL", ""), record("A", "Trace", "1")}, {false, false}},
      {"no number", {record("A", "Trace_UNTIL", "soon"), record("A", "Trace", "1")}, {false, false}},
      {"negative", {record("A", "Trace_UNTIL", "-5"), record("A", "Trace", "1")}, {false, false}},
      {"lax", {record("A", "Trace_UNTIL", " +" + future + "x"), record("A", "Trace", "1")}, {true, true}},
      {"the suffix alone", {record("A", "_UNTIL", past), record("B", "_UNTIL_UNTIL", future)}, {true, true}},
      {"another case", {record("A", "Trace_until", past), record("A", "Trace", "1")}, {true, true}},
      {"companion's case", {record("A", "Trace_UNTIL", past), record("A", "trace", "1")}, {false, true}},
      {"one expired, one not",
       {record("A", "Trace_UNTIL", past), record("B", "Trace_UNTIL", future), record("B", "Trace", "1")},
       {false, true, false}},
      {"an expiry of an expiry",
       {record("A", "X_UNTIL_UNTIL", past), record("A", "X_UNTIL", future), record("A", "X", "1")},
       {false, false, true}}};
  for (auto [what, keys, stays] : cases) {
    for (const OBGui::RegistryKeyInfo& key : keys) setValue("~" + key.keyPath.get(), key.valueName, "before");
    EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      EXPECT_EQ(valueOf("~" + keys[i].keyPath.get(), keys[i].valueName).has_value(), stays[i]) << what << i;
      EXPECT_EQ(keys[i].deleteFlag, stays[i] ? 0 : 1) << what << i << ": the caller's list tells";
    }
  }
  OBGui::KeyList reached{record("A", "Trace_UNTIL", "1000"), record("B", "Trace", "1")};
  reached[1].deleteFlag = 2;  // neither a removal nor absent: the expiry decides
  for (const bool isOver : {false, true}) {
    markExpired(reached, isOver ? 1001 : 1000);
    EXPECT_TRUE(reached[0].deleteFlag == (isOver ? 1 : 0) && reached[1].deleteFlag == (isOver ? 1 : 2))
        << isOver;
  }
}

TEST_F(Apply, TheLaterOfTwoRecordsWins) {
  for (const char* name : {"sGONE", "sBACK"}) setValue("A", name, "1");
  EXPECT_EQ(apply({record("A", "sVALUE", "1"), record("A", "sVALUE", "2"), record("A", "sGONE", "2"),
                   removal("A", "sGONE"), record("A", "sBRIEF", "1"), removal("A", "sBRIEF"),
                   record("A", "sBACK", "2"), record("A", "sBACK", "1")}),
            0);
  EXPECT_EQ(valuesOf("A", {"sVALUE", "sGONE", "sBRIEF", "sBACK"}), "2 - - 1");
}

// --- callbacks ---------------------------------------------------------------------------------------------

TEST_F(Apply, CallbacksSeeEveryChangeOnDiskAndNothingElse) {
  const std::string longest(1023, 'x');  // of what is compared
  for (const char* name : {"e_tilde", "f_removed", "h_disabled", "k_wrongcase"})
    setValue("Watched", name, "1");
  setValue("Watched", "a_same", longest);
  setValue("Watched", "b_changed", "old");
  setValue("Watched", "d_long", longest + "x");
  for (const char* name : {"a_same", "b_changed", "c_new", "d_long", "f_removed", "g_notthere", "h_disabled",
                           "i_disabledabsent", "l_oddflag"})
    watch("Watched", name);
  watch("~Watched", "e_tilde");
  watch("watched", "k_wrongcase");

  OBGui::RegistryKeyInfo oddFlag = disabled("Watched", "l_oddflag", "1");
  oddFlag.deleteFlag = 2;  // any deleteFlag but 0 asks for a removal

  auto keys = OBGui::KeyList({record("Watched", "a_same", longest), record("Watched", "b_changed", "new"),
                              record("Watched", "c_new", "1"), record("Watched", "d_long", longest + "x"),
                              record("~Watched", "e_tilde", "1"), removal("Watched", "f_removed"),
                              removal("Watched", "g_notthere"), disabled("Watched", "h_disabled", "1"),
                              disabled("Watched", "i_disabledabsent", "1"),
                              record("Watched", "k_wrongcase", "2"), oddFlag});
  // Enough to come that the callbacks look while the pass is still at work.
  for (int i = 0; i < 3000; ++i) keys.push_back(record("Rest", std::to_string(i), "1"));
  const oblog::Capture log;
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
  EXPECT_EQ(told(), (std::vector<Change>{{"b_changed", "new\n"},
                                         {"c_new", "1\n"},
                                         {"d_long", longest + "x\n"},
                                         {"e_tilde", "1\n"},  // looked for at "~~Watched", where nothing is
                                         {"f_removed", "gone"},
                                         {"g_notthere", "gone"},
                                         {"h_disabled", "gone"},
                                         {"l_oddflag", "gone"}}));
  // Handed over in the order of the records.
  const std::string tag = "LqRegistryChangeMgr::HandleCallbackForRegistry";
  Lines handed = linesOf(log, tag);
  std::erase_if(handed, [](const std::string& line) { return !contains(line, "Successfully"); });
  ASSERT_EQ(handed.size(), told().size());
  for (std::size_t i = 0; i < handed.size(); ++i)
    EXPECT_EQ(handed[i], "10|" + tag + "|Successfully started callback function for [" +
                             (told()[i].first == "e_tilde" ? "~" : "") + "Watched\\" + told()[i].first + "]");
  // The line shows what was there before, in spite of its wording.
  EXPECT_TRUE(
      hasLine(log, "10|LqRegistryManager::updateRegistryKeysForClient|set value = old for key = b_changed"));
}

TEST_F(Apply, ProtectedValuesAreComparedAsStored) {
  watch("Secrets", "sPASSWORD");
  EXPECT_EQ(apply({secretRecord("Secrets", "sPASSWORD", "hunter2")}), 0);
  EXPECT_EQ(told().size(), 1U);
  EXPECT_EQ(apply({secretRecord("Secrets", "sPASSWORD", "hunter2")}), 0);
  EXPECT_EQ(told().size(), 1U) << "the same secret is no change";
  EXPECT_EQ(apply({secretRecord("Secrets", "sPASSWORD", "hunter3")}), 0);
  EXPECT_EQ(told().size(), 2U);

  // A type word in another case is compared as a protected value, but stored as plain text: that is no change
  // where the protected text stood, and always one afterwards.
  OBGui::RegistryKeyInfo lower = secretRecord("Secrets", "sPASSWORD", "hunter3");
  lower.valueType = "encrypted";
  for (const std::size_t expected : {2U, 3U, 4U}) {
    EXPECT_EQ(apply({lower}), 0);
    EXPECT_EQ(told().size(), expected);
  }
}

TEST_F(Apply, AfterAFailureEverythingIsAppliedAndNobodyIsTold) {
  watch("A", "sBEFORE");
  watch("A", "sAFTER");
  watch("A", "sREMOVED");
  setValue("A", "sREMOVED", "1");
  EXPECT_EQ(apply({record("A", "sBEFORE", "1"), record("Clients", "Other", "", "KEY"),
                   record("A", "sAFTER", "1"), removal("A", "sREMOVED")}),
            3);
  EXPECT_EQ(told(), (std::vector<Change>{{"sBEFORE", "1\n"}}));
  EXPECT_EQ(valuesOf("A", {"sAFTER", "sREMOVED"}), "1 -");
  EXPECT_EQ(apply({removal("A", ""), record("A", "sAFTER", "2")}), 3) << "a removal without a name fails";
  EXPECT_EQ(told().size(), 1U);
  EXPECT_EQ(apply({record("A", "sAFTER", "3")}), 0) << "a failure does not outlive its pass";
  EXPECT_EQ(told().size(), 2U);
}

// --- a registry that cannot be written ---------------------------------------------------------------------

TEST_F(Apply, ComparesWithNothingThatAnotherProcessIsAboutToChange) {
  setValue("A", "sVALUE", "before");
  lqregistry::UseFile(registryFile_);
  const OtherProcess holder([](const std::string& step) {  // keeps it locked until it is asked to release it
    static auto* const batch = new lqregistry::WriteBatch;
    if (step == "release") return batch->commit();
    return LQPlatformInfo("Instance001").setString("A", step, "after", 0) != 0;
  });
  ASSERT_TRUE(holder.ask("sVALUE"));
  watch("A", "sVALUE");
  std::thread pass([this] { EXPECT_EQ(apply({record("A", "sVALUE", "after")}), 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // a pass that did not wait would read
  ASSERT_TRUE(holder.ask("release"));
  pass.join();
  EXPECT_TRUE(told().empty()) << "the value was there already when the pass had the registry to itself";
}

TEST_F(Apply, AFullDiskFailsThePassAndLosesNothing) {
  setValue("A", "sVALUE", "before");
  watch("A", "sVALUE");
  {
    const FullDisk full(0);  // what is written still fits into memory: it is the commit that fails
    EXPECT_EQ(apply({record("A", "sVALUE", "lost")}), 3);
    EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  }
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(valueOf("A", "sVALUE"), "before");
  EXPECT_EQ(apply({record("A", "sVALUE", "after")}), 0);
  EXPECT_EQ(told().size(), 1U);
}

// --- a hostile batch ---------------------------------------------------------------------------------------

TEST_F(Apply, AHostileBatchIsAppliedAsFarAsPossible) {
  const std::string everyByte = test_support::everyByte();
  setValue("Bystander", "sVALUE", "untouched");
  OBGui::KeyList keys{record("A", "", "no name"),
                      removal("", "", "KEY"),  // without a name, this would be the whole instance
                      removal("~", "/", "KEY"),
                      removal("SOFTWARE", "Velmor", "KEY"),
                      record("A", std::string(100'000, 'n'), "long name"),
                      record(std::string(100'000, 'p'), "sVALUE", "long path"),
                      record("A", everyByte, everyByte),
                      record("../../" + everyByte, "sVALUE", "odd path"),
                      record("A", "'; DROP TABLE keys; --", "%s%n%s%n\xed\xa0\x80"),
                      record(std::string("A\0B", 3), std::string("s\0V", 3), "NUL"),
                      record("A", "sHUGE", std::string(4 << 20, 'v'))};
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 3);

  lqregistry::UseFile(registryFile_);  // reads what is on disk, through a new connection
  EXPECT_EQ(valueOf("Bystander", "sVALUE"), "untouched");
  EXPECT_EQ(valueOf("A", everyByte), everyByte);
  EXPECT_EQ(valueOf("~../../" + everyByte, "sVALUE"), "odd path");
  EXPECT_EQ(valueOf("A", "'; DROP TABLE keys; --"), "%s%n%s%n\xed\xa0\x80");
  EXPECT_EQ(valueOf("A", "sHUGE")->size(), std::size_t{4} << 20);
  outOf(runProgram({programPath("lqreg"), "--registry", registryFile_, "tree", "SOFTWARE"}));
}

// --- another module's list ---------------------------------------------------------------------------------

TEST_F(Apply, AnotherModulesListGivesTheStatusOfTheLastOperation) {
  LqRegistryManagerClnt client("Instance002");  // the list is for the instance in focus all the same
  const auto applyForModule = [&client](const std::string& path, const std::string& name,
                                        const std::string& type) {
    App::KeyList keys(1);
    keys[0].keyPath = path;
    keys[0].valueName = name;
    keys[0].valueType = type;
    keys[0].value = "1";
    keys[0].enabledFlag = 1;
    return client.updateRegistryKeyForTPPM(keys);
  };
  const oblog::Capture log(2);
  EXPECT_EQ(applyForModule("Module", "sFIRST", "VALUE"), 6U);
  EXPECT_EQ(applyForModule("Module", "sSECOND", "VALUE"), 7U);
  EXPECT_EQ(applyForModule("Module", "sSECOND", "VALUE"), 0U);
  EXPECT_EQ(applyForModule("Module", std::string(2000, 'n'), "VALUE"), 8U);
  EXPECT_EQ(applyForModule("Module", "Other", "KEY"), 7U) << "refused, which is not a failed write";
  EXPECT_EQ(valueOf("Module", "sFIRST"), "1");
  const auto lines = linesOf(log, "LqRegistryManagerClnt::updateRegistryKeyForTPPM");
  ASSERT_EQ(lines.size(), 10U);
  const std::string tag = "2|LqRegistryManagerClnt::updateRegistryKeyForTPPM|";
  EXPECT_EQ(lines[0], tag + "Started updating registry for TPPM settings");
  EXPECT_EQ(lines[1], tag + "Completed updating registry for TPPM settings");
}

}  // namespace
