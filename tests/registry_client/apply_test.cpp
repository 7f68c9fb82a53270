// Applying key lists: what is written and what removed, who is told of it, and what happens when the registry
// cannot be written.
#include <algorithm>
#include <ctime>
#include <mutex>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/platform/registry_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

using test_support::programPath;
using test_support::runProgram;

// What the change callbacks saw: the record, and the value in the registry file, as another process sees it.
struct Change {
  std::string valueName;
  std::string onDisk;
  bool operator==(const Change&) const = default;
};
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
    std::sort(changes.begin(), changes.end(),
              [](const Change& a, const Change& b) { return a.valueName < b.valueName; });
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
  const struct {
    const char* what;
    OBGui::KeyList keys;
    std::vector<bool> stays;
  } cases[] = {
      {"past", {record("A", "Trace", "1"), record("A", "Trace_UNTIL", past)}, {false, false}},
      {"future", {record("A", "Trace", "1"), record("A", "Trace_UNTIL", future)}, {true, true}},
      {"across paths",
       {record("B", "Trace_UNTIL", past), record("A", "Trace", "1"), record("", "Trace", "1")},
       {false, false, false}},
      {"empty", {record("A", "Trace_UNTIL", ""), record("A", "Trace", "1")}, {false, false}},
      {"no number", {record("A", "Trace_UNTIL", "soon"), record("A", "Trace", "1")}, {false, false}},
      {"negative", {record("A", "Trace_UNTIL", "-5"), record("A", "Trace", "1")}, {false, false}},
      {"blanks, sign and rest",
       {record("A", "Trace_UNTIL", " +" + future + "x"), record("A", "Trace", "1")},
       {true, true}},
      {"the suffix alone", {record("A", "_UNTIL", past), record("B", "_UNTIL_UNTIL", future)}, {true, true}},
      {"another case", {record("A", "Trace_until", past), record("A", "Trace", "1")}, {true, true}},
      {"companion in another case",
       {record("A", "Trace_UNTIL", past), record("A", "trace", "1")},
       {false, true}},
      {"one expired, one not",
       {record("A", "Trace_UNTIL", past), record("B", "Trace_UNTIL", future), record("B", "Trace", "1")},
       {false, true, false}},
      {"an expiry of an expiry",
       {record("A", "X_UNTIL_UNTIL", past), record("A", "X_UNTIL", future), record("A", "X", "1")},
       {false, false, true}}};
  for (const auto& c : cases) {
    OBGui::KeyList keys = c.keys;
    for (const OBGui::RegistryKeyInfo& key : keys) setValue("~" + key.keyPath.get(), key.valueName, "before");
    EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      EXPECT_EQ(valueOf("~" + keys[i].keyPath.get(), keys[i].valueName).has_value(), c.stays[i])
          << c.what << i;
      EXPECT_EQ(keys[i].deleteFlag, c.stays[i] ? 0 : 1) << c.what << i << ": the caller's list tells";
    }
  }
}

TEST_F(Apply, TheLaterOfTwoRecordsWins) {
  for (const char* name : {"sGONE", "sBACK"}) setValue("A", name, "1");
  EXPECT_EQ(apply({record("A", "sVALUE", "1"), record("A", "sVALUE", "2"), record("A", "sGONE", "2"),
                   removal("A", "sGONE"), record("A", "sBRIEF", "1"), removal("A", "sBRIEF"),
                   record("A", "sBACK", "2"), record("A", "sBACK", "1")}),
            0);
  EXPECT_EQ(valueOf("A", "sVALUE"), "2");
  EXPECT_EQ(valueOf("A", "sGONE"), std::nullopt);
  EXPECT_EQ(valueOf("A", "sBRIEF"), std::nullopt);
  EXPECT_EQ(valueOf("A", "sBACK"), "1");
}

// --- callbacks ---------------------------------------------------------------------------------------------

TEST_F(Apply, CallbacksSeeEveryChangeOnDiskAndNothingElse) {
  setValue("Watched", "a_same", "1");
  setValue("Watched", "b_changed", "old");
  setValue("Watched", "d_long", std::string(1024, 'x'));
  setValue("Watched", "e_tilde", "1");
  setValue("Watched", "f_removed", "1");
  setValue("Watched", "h_disabled", "1");
  setValue("Watched", "k_wrongcase", "1");
  for (const char* name : {"a_same", "b_changed", "c_new", "d_long", "f_removed", "g_notthere", "h_disabled",
                           "i_disabledabsent"})
    watch("Watched", name);
  watch("~Watched", "e_tilde");
  watch("watched", "k_wrongcase");

  OBGui::RegistryKeyInfo disabled = record("Watched", "h_disabled", "1");
  disabled.enabledFlag = 0;
  OBGui::RegistryKeyInfo disabledAbsent = record("Watched", "i_disabledabsent", "1");
  disabledAbsent.enabledFlag = 0;
  OBGui::RegistryKeyInfo oddFlag = disabledAbsent;  // any deleteFlag but 0 asks for a removal
  oddFlag.valueName = "l_oddflag";
  oddFlag.deleteFlag = 2;
  watch("Watched", "l_oddflag");

  OBGui::KeyList keys{record("Watched", "a_same", "1"),
                      record("Watched", "b_changed", "new"),
                      record("Watched", "c_new", "1"),
                      record("Watched", "d_long", std::string(1024, 'x')),
                      record("~Watched", "e_tilde", "1"),
                      removal("Watched", "f_removed"),
                      removal("Watched", "g_notthere"),
                      disabled,
                      disabledAbsent,
                      record("Watched", "k_wrongcase", "2"),
                      oddFlag};
  // Enough to come that the callbacks look while the pass is still at work.
  for (int i = 0; i < 3000; ++i) keys.push_back(record("Rest", std::to_string(i), "1"));
  const oblog::Capture log;
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
  EXPECT_EQ(told(),
            (std::vector<Change>{{"b_changed", "new\n"},
                                 {"c_new", "1\n"},
                                 {"d_long", std::string(1024, 'x') + "\n"},  // longer than what is compared
                                 {"e_tilde", "1\n"},  // looked for at "~~Watched", where nothing is
                                 {"f_removed", "gone"},
                                 {"g_notthere", "gone"},
                                 {"h_disabled", "gone"},
                                 {"l_oddflag", "gone"}}));
  // The line shows what was there before, in spite of its wording.
  EXPECT_TRUE(
      hasLine(log, "10|LqRegistryManager::updateRegistryKeysForClient|set value = old for key = b_changed"));
}

// Each writes one value itself, for which the pass must have let go of the registry.
void writeBack(OBGui::RegistryKeyInfo key) {
  const bool isWritten = LQPlatformInfo().setString("Told", key.valueName, key.value, 0) != 0;
  const std::lock_guard lock(changesMutex);
  changes.push_back({key.valueName, isWritten ? "written" : "refused"});
}

TEST_F(Apply, AThousandChangesTellModulesThatWriteThemselves) {
  OBGui::KeyList keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back(record("Watched", std::to_string(i), "1"));
    LqRegistryChangeMgr::GetInstance()->Register("Watched", keys.back().valueName, &writeBack);
  }
  const oblog::Capture log;
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
  const auto changesTold = told();
  EXPECT_EQ(changesTold.size(), 1000U);
  for (const Change& change : changesTold) EXPECT_EQ(change.onDisk, "written") << change.valueName;
  std::map<std::string, std::string> values;
  EXPECT_TRUE(LQPlatformInfo().getRegValues("Told", values));
  EXPECT_EQ(values.size(), 1000U);
  // Handed over in the order of the records.
  std::vector<std::string> expected;
  for (const auto& key : keys)
    expected.push_back(
        "10|LqRegistryChangeMgr::HandleCallbackForRegistry|Successfully started callback function for "
        "[Watched\\" +
        key.valueName.get() + "]");
  auto lines = linesOf(log, "LqRegistryChangeMgr::HandleCallbackForRegistry");
  std::erase_if(lines, [](const std::string& line) { return !test_support::contains(line, "Successfully"); });
  EXPECT_EQ(lines, expected);
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
  EXPECT_EQ(valueOf("A", "sAFTER"), "1");
  EXPECT_EQ(valueOf("A", "sREMOVED"), std::nullopt);
  EXPECT_EQ(apply({removal("A", ""), record("A", "sAFTER", "2")}), 3) << "a removal without a name fails";
  EXPECT_EQ(told().size(), 1U);
  EXPECT_EQ(apply({record("A", "sAFTER", "3")}), 0) << "a failure does not outlive its pass";
  EXPECT_EQ(told().size(), 2U);
}

// --- a registry that cannot be written ---------------------------------------------------------------------

TEST_F(Apply, ALockedRegistryFailsThePassAndLosesNothing) {
  setValue("A", "sVALUE", "before");
  lqregistry::UseFile(registryFile_);  // closed while the other process is made
  OtherProcess holder([](const std::string& question) {
    static auto* const batch = new lqregistry::WriteBatch;
    if (question == "release") return batch->commit();
    return LQPlatformInfo("Instance001").setString("A", "sHELD", "1", 0) != 0;
  });
  ASSERT_TRUE(holder.ask("hold"));
  lqregistry::UseWriteWait(std::chrono::milliseconds(50));
  watch("A", "sVALUE");
  EXPECT_EQ(apply({record("A", "sVALUE", "after"), record("B", "sNEW", "1"), removal("A", "sABSENT")}), 3);
  EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  EXPECT_EQ(valueOf("A", "sVALUE"), "before");
  ASSERT_TRUE(holder.ask("release"));
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(apply({record("A", "sVALUE", "after")}), 0);
  EXPECT_EQ(told().size(), 1U);
}

TEST_F(Apply, ComparesWithNothingThatAnotherProcessIsAboutToChange) {
  setValue("A", "sVALUE", "before");
  lqregistry::UseFile(registryFile_);
  OtherProcess holder([](const std::string& question) {
    static auto* const batch = new lqregistry::WriteBatch;
    if (question == "release") return batch->commit();
    return LQPlatformInfo("Instance001").setString("A", "sVALUE", "after", 0) != 0;
  });
  ASSERT_TRUE(holder.ask("hold"));
  watch("A", "sVALUE");
  std::thread pass([this] { EXPECT_EQ(apply({record("A", "sVALUE", "after")}), 0); });
  std::this_thread::sleep_for(
      std::chrono::milliseconds(200));  // in which a pass that did not wait would read
  ASSERT_TRUE(holder.ask("release"));
  pass.join();
  EXPECT_TRUE(told().empty()) << "the value was there already when the pass had the registry to itself";
}

TEST_F(Apply, WhereNothingCanBeWrittenAnUnchangedPassSucceeds) {
  setValue("A", "sVALUE", "as it was");
  lqregistry::UseFile(registryFile_);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0555), 0);
  ASSERT_EQ(chmod(registryFile_.c_str(), 0444), 0);
  OtherProcess reader([](const std::string& value) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && setuid(kNobody) != 0) return false;
    LqRegistryManagerClnt client("Instance001");
    OBGui::KeyList keys{record("A", "sVALUE", value), removal("A", "sABSENT")};
    return client.updateRegistryKeysForClient(keys) == kResultOk;
  });
  EXPECT_TRUE(reader.ask("as it was"));
  EXPECT_FALSE(reader.ask("changed"));
  chmod(dir_.path().c_str(), 0755);
}

TEST_F(Apply, AFullDiskFailsThePassAndLosesNothing) {
  setValue("A", "sVALUE", "before");
  {
    const FullDisk full(0);  // what is written still fits into memory: it is the commit that fails
    EXPECT_EQ(apply({record("A", "sVALUE", "lost")}), 3);
    EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  }
  EXPECT_EQ(valueOf("A", "sVALUE"), "before");

  // More than fits: the whole transaction is lost in the middle of the pass, what was written before
  // included.
  for (const char* name : {"sFIRST", "sVALUE", "sLAST"}) watch("A", name);
  OBGui::KeyList keys{record("A", "sFIRST", "1")};
  for (int i = 0; i < 8; ++i)
    keys.push_back(record("A", "sHUGE" + std::to_string(i), std::string(1 << 20, 'a')));
  keys.push_back(record("A", "sLAST", "1"));
  {
    const FullDisk full(200'000);
    EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 3);
    EXPECT_EQ(valueOf("A", "sFIRST"), std::nullopt);
    EXPECT_EQ(valueOf("A", "sLAST"), "1") << "later records are still tried";
  }
  keys = {record("A", "sVALUE", std::string(300'000, 'a'))};
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 0);
  EXPECT_EQ(valueOf("A", "sVALUE")->size(), 300'000U);
  EXPECT_EQ(told().size(), 1U);
}

// --- a hostile batch ---------------------------------------------------------------------------------------

TEST_F(Apply, AHostileBatchIsAppliedAsFarAsPossible) {
  std::string everyByte;
  for (int byte = 1; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  setValue("Bystander", "sVALUE", "untouched");
  OBGui::KeyList keys;
  keys.push_back(record("A", "", "no name"));
  keys.push_back(removal("", "", "KEY"));  // without a name, this would be the whole instance
  keys.push_back(removal("~", "/", "KEY"));
  keys.push_back(removal("SOFTWARE", "Velmor", "KEY"));
  keys.push_back(record("A", std::string(100'000, 'n'), "long name"));
  keys.push_back(record(std::string(100'000, 'p'), "sVALUE", "long path"));
  keys.push_back(record("A", everyByte, everyByte));
  keys.push_back(record("../../" + everyByte, "sVALUE", "odd path"));
  keys.push_back(record("A", "'; DROP TABLE keys; --", "%s%n%s%n\xed\xa0\x80"));
  keys.push_back(record(std::string("A\0B", 3), std::string("s\0V", 3), "NUL"));
  keys.push_back(record("A", "sHUGE", std::string(4 << 20, 'v')));
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 3);

  lqregistry::UseFile(registryFile_);  // reads what is on disk, through a new connection
  EXPECT_EQ(valueOf("Bystander", "sVALUE"), "untouched");
  EXPECT_EQ(valueOf("A", everyByte), everyByte);
  EXPECT_EQ(valueOf("~../../" + everyByte, "sVALUE"), "odd path");
  EXPECT_EQ(valueOf("A", "'; DROP TABLE keys; --"), "%s%n%s%n\xed\xa0\x80");
  EXPECT_EQ(valueOf("A", "sHUGE")->size(), std::size_t{4} << 20);
  const auto tree = runProgram({programPath("lqreg"), "--registry", registryFile_, "tree", "SOFTWARE"});
  EXPECT_EQ(tree.exitCode, 0) << tree.err;
}

// --- another module's list ---------------------------------------------------------------------------------

TEST_F(Apply, AnotherModulesListGivesTheStatusOfTheLastOperation) {
  const auto applyForModule = [this](const std::string& path, const std::string& name,
                                     const std::string& type) {
    App::KeyList keys(1);
    keys[0].keyPath = path;
    keys[0].valueName = name;
    keys[0].valueType = type;
    keys[0].value = "1";
    keys[0].enabledFlag = 1;
    return client_.updateRegistryKeyForTPPM(keys);
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
