// What a pass changed comes back: by hand, when nobody confirms it, when it cuts the machine off; after a
// kill at any step, on a full disk, beside what somebody has changed meanwhile.
#include <algorithm>
#include <ctime>

#include "lqhost/commands/commands.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/pass/wire_watch.h"
#include "lqhost/rollback/going_back.h"
#include "lqhost/rollback/history.h"
#include "lqhost/rollback/place_value.h"
#include "lqhost/rollback/prediction.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/support/product_fixture.h"

namespace {

using host::BatchKind;
using host::ChangeNote;
using host::MemoryFile;
using host::PassTerms;
using Tree = std::map<std::string, std::string>;

Lines heard;  // by callbacks

void hear(OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param)
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  heard.push_back(key.valueName.get() + (key.deleteFlag == 1 ? " removed" : "=" + key.value.get()) +
                  std::string(key.encryptedValue->reveal()));
}

// A joined machine, at a time that the test sets.
class Rollback : public ProductTest {
 protected:
  Rollback() {
    join();
    heard.clear();
    host::WireWatch::install();
    host::useClock([this] { return now_; });
    setValue("Old", "sCACHE", "1");
    LqRegistryManagerClnt::setAdditionalSettingsCache(batchText({record("Old", "sCACHE", "1")}));
  }
  ~Rollback() override {
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();  // `heard` may go when this process ends
    host::useClock({});
    host::onGoingBack(nullptr);
    LqRegistryChangeMgr::callBackMaps.clear();
  }
  void pass(std::int64_t seconds) {
    now_.sinceBoot += seconds * 1000;
    now_.wall += seconds;
  }

  // Every key and value of the registry, with types.
  static Tree tree(const std::string& path = "SOFTWARE") {
    LQPlatformInfo info;
    std::list<std::string> below;
    std::map<std::string, std::string> values;
    EXPECT_TRUE(info.getSubKeys(path, below) && info.getRegValues(path, values));
    Tree all{{path, ""}};
    for (const auto& [name, data] : values)
      all[path + "\\" + name] = host::readPlace(info, path, name).value();
    for (const std::string& name : below) all.merge(tree(path + "/" + name));
    return all;
  }
  static void setRaw(const std::string& name, unsigned type, const std::string& data) {
    LQPlatformInfo info;
    ASSERT_TRUE(info.createRegKey("Raw") &&
                info.setRegValue("Raw", name, type, data.data(), static_cast<int>(data.size())));
  }

  // As a pass does it, without the server; why it was held back.
  static std::string apply(const OBGui::KeyList& keys, PassTerms word = {},
                           BatchKind kind = BatchKind::kWhole,
                           std::optional<host::UnsettledNote> behind = {}) {
    ChangeNote note(kind, word, behind);
    std::string reason = note.arrive(keys);
    if (reason.empty()) {
      OBGui::KeyList batch = keys;
      LqRegistryManagerClnt client("Instance001");
      client.updateRegistryKeysForClient(batch);
      if (kind == BatchKind::kWhole) LqRegistryManagerClnt::setAdditionalSettingsCache(batchText(keys));
    }
    note.finish();
    return reason;
  }
  static std::string stateWord() { return host::memoryState().state; }
  static host::WentBack goBack(const std::string& reason = "a test") {
    host::WentBack back = host::goBack(reason);
    EXPECT_FALSE(back.error.IsError()) << back.error.AsString();
    return back;
  }

  host::Moment now_{"boot", 1'000'000, 2'000'000'000};
  const OBGui::KeyList two_{record("Limits", "nMAX", "2")};
};

TEST_F(Rollback, RegistryCacheAndModulesAreAsTheyWereBefore) {
  setValue("Limits", "nMAX", "1");
  setValue("Limits", "sEMPTY", "");
  setValue("Limits", "sTRIAL", "on trial");
  setRaw("sTYPED", 7, std::string("a\0%00\xff<&\n", 10));
  setRaw("sSAME", 3, "same bytes");
  setRaw("sLONG", 0, std::string(20'000, 'x'));
  setValue("Secrets", "sOLD", pstring("old secret").getV8Password());
  setValue("Branch/Twig", "sDEEP", "leaf");
  setValue("Branch", "sTOP", "bark");
  LQPlatformInfo info;
  ASSERT_TRUE(info.createRegKey("Branch/Bare"));
  for (const char* name : {"nMAX", "sEMPTY", "sNEW"})
    LqRegistryChangeMgr::GetInstance()->Register("Limits", name, &hear);
  LqRegistryChangeMgr::GetInstance()->Register("Secrets", "sOLD", &hear);
  const Tree before = tree();
  const std::string cache = readFile(cacheFile());

  const OBGui::KeyList batch{record("~Limits", "nMAX", "5"),
                             record("Limits", "nMAX", "2"),
                             record("Limits", "sEMPTY", "full"),
                             record("Limits", "sNEW", "new"),
                             record("Limits", "sTRIAL", "on trial"),
                             record("Limits", "sTRIAL_UNTIL", "1"),
                             record("Raw", "sTYPED", "plain"),
                             record("Raw", "sSAME", "same bytes"),
                             disabled("Raw", "sLONG", ""),
                             secretRecord("Secrets", "sOLD", "new secret"),
                             record("Branch", "sTOP", "moss"),
                             removal("", "Branch", "KEY"),
                             record("Branch/Twig", "sGRAFTED", "1"),
                             record("A/B/C", "sDEEP", "1"),
                             record("Limits", "Local", "", "KEY"),
                             record("Limits", "Forbidden", "", "KEY"),
                             removal("Limits", "sNEVER"),
                             record("SOFTWARE/Velmor/Instance001/Limits", "sABSOLUTE", "1")};
  EXPECT_EQ(apply(batch), "");
  EXPECT_EQ(modeOf(registryFile_ + ".Instance001.before"), 0600U);
  EXPECT_EQ(valuesOf("Limits", {"nMAX", "sTRIAL"}) + valueOf("Branch/Twig", "sDEEP").value_or(" gone"),
            "2 - gone");
  EXPECT_EQ(stateWord(), "kept");
  const Tree after = tree();
  ASSERT_EQ(apply(batch), "");  // which changes nothing
  EXPECT_TRUE(host::predictChanges({record("None", "s", "1"), removal("", "None", "KEY")}).empty());
  for (const MemoryFile file : {MemoryFile::kBefore, MemoryFile::kGone})
    EXPECT_FALSE(contains(readFile(host::memoryPath(file)), "secret\"")) << "in clear";
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  heard.clear();
  const host::WentBack back = goBack();
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(readFile(cacheFile()), cache);
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  std::sort(heard.begin(), heard.end());
  EXPECT_EQ(heard, (Lines{"nMAX=1", "sEMPTY=", "sNEW removed", "sOLD=********old secret"}));
  EXPECT_TRUE(back.local.empty());
  EXPECT_EQ(stateWord(), "goneBack");
  EXPECT_TRUE(contains(host::historyText(), " gone back: ")) << host::historyText();
  // Nothing of what was before is kept any longer than it is needed.
  EXPECT_FALSE(contains(readFile(host::memoryPath(MemoryFile::kGone)), "before=\""));
  EXPECT_FALSE(host::isThere(MemoryFile::kGoing) || host::isThere(MemoryFile::kBefore));
  EXPECT_TRUE(host::goBack("again").error.IsError()) << "there is nothing to go back to";
  ASSERT_NE(apply(batch), "");
  EXPECT_EQ(tree(), before);
  ASSERT_EQ(apply(batch, {HostReport::kDemandNothing, true}), "") << "released";
  EXPECT_EQ(tree(), after);
}

TEST_F(Rollback, WhatSomebodyChangedMeanwhileStays) {
  setValue("Limits", "nMAX", "1");
  ASSERT_EQ(apply({record("Limits", "nMAX", "2"), record("Limits", "nMIN", "2"), record("New", "sIN", "1"),
                   removal("EventManager", "dOBLOGDIR")}),
            "");
  setValue("Limits", "nMIN", "local");
  setValue("New", "sOWN", "local");
  const host::WentBack back = goBack();
  ASSERT_EQ(back.local.size(), 1U);
  EXPECT_EQ(back.local[0].name.get(), "nMIN");
  EXPECT_EQ(host::memoryState().localChanges, 1);
  EXPECT_EQ(valuesOf("Limits", {"nMAX", "nMIN"}), "1 local");
  EXPECT_EQ(valuesOf("New", {"sIN", "sOWN"}), "- local");
  EXPECT_EQ(valueOf("EventManager", "dOBLOGDIR"), "/opt/x/Log_Files");
  // Held back is what it went back from, and only as long as the server wants it.
  EXPECT_TRUE(contains(apply({record("Limits", "nMAX", "3"), record("Limits", "nMIN", "2")}), "nMIN"));
  EXPECT_TRUE(contains(apply(two_, {}, BatchKind::kPart), "nMAX")) << "pushed";
  EXPECT_EQ(apply({record("Other", "s", "1")}, {}, BatchKind::kPart), "");
  EXPECT_TRUE(contains(apply(two_), "went back")) << "a push says nothing of the rest";
  EXPECT_EQ(apply({record("Limits", "nMAX", "3")}), "");
  EXPECT_EQ(apply(two_), "") << "the server has changed its mind, twice";
  goBack();
  ASSERT_NE(apply(two_), "");
  EXPECT_TRUE(host::forgetGoneBack());
  EXPECT_FALSE(host::forgetGoneBack());
  EXPECT_EQ(apply(two_), "");
}

// A refresh may use the cache that is put back as far as it could before, and none that could not be.
TEST_F(Rollback, TheNoteSaysWhetherTheCacheFits) {
  const auto noted = [] { return host::standingNote().value_or(host::UnsettledNote{}).why; };
  ASSERT_EQ(apply(two_, {}, BatchKind::kWhole, host::UnsettledNote{host::Unsettled::kCacheKept, 0, ""}), "");
  goBack();
  EXPECT_EQ(noted(), host::Unsettled::kCacheKept);
  ASSERT_EQ(apply({record("Limits", "nMAX", "3")}), "");
  std::filesystem::remove(cacheFile());
  std::filesystem::create_directory(cacheFile());
  EXPECT_FALSE(goBack().isCacheRestored);
  EXPECT_EQ(noted(), host::Unsettled::kCacheDropped);
}

// What waits is merged until it is confirmed; what is only kept is not.
TEST_F(Rollback, TheMemoryReachesBackToTheLastConfirmedState) {
  const auto set = [](const char* value, PassTerms word = {}) {
    EXPECT_EQ(apply({record("Limits", "nMAX", value)}, word), "");
    return host::memoryState().digest.get();
  };
  set("1");
  set("2");
  goBack();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "1") << "kept: the newest pass";

  const std::string first = set("3", {HostReport::kDemandVerdicts});
  EXPECT_EQ(stateWord(), "waiting");
  EXPECT_FALSE(host::secondsUntilGoingBack());
  pass(10);
  const std::string second = set("4", {60});
  set("4", {5});
  EXPECT_EQ(host::secondsUntilGoingBack(), 60) << "nothing has changed";
  pass(10);
  const std::string third = set("5", {300});
  EXPECT_EQ(host::secondsUntilGoingBack(), 50) << "the least";
  host::confirmChanges(first);
  host::confirmChanges(second);
  EXPECT_EQ(stateWord(), "waiting") << "of another batch";
  goBack();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "1");

  const std::string fourth = set("6", {60});
  EXPECT_TRUE(first != second && second != third && third != fourth && fourth.size() == 64);
  host::confirmChanges(fourth);
  EXPECT_EQ(stateWord(), "kept");
  EXPECT_FALSE(host::secondsUntilGoingBack());
  set("7");
  goBack();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "6");

  // A batch that cannot be applied leaves the memory of the one before.
  set("8");
  {
    ChangeNote note(BatchKind::kWhole, {}, {});
    EXPECT_EQ(note.arrive({record("Limits", "nMAX", "9")}), "");
    note.finish();
  }
  goBack();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "6");
  // One that was killed before it was applied leaves nothing to go back from; afterwards it does.
  ChangeNote(BatchKind::kWhole, {60}, {}).arrive({record("Limits", "nMAX", "10")});
  EXPECT_EQ(stateWord(), "waiting");
  host::dropWhatNeverHappened();
  EXPECT_EQ(stateWord(), "goneBack");
  ChangeNote(BatchKind::kWhole, {60}, {}).arrive({record("Limits", "nMAX", "10")});
  setValue("Limits", "nMAX", "10");
  host::dropWhatNeverHappened();
  EXPECT_EQ(stateWord(), "waiting");
  for (int i = 0; i < 60; ++i) set(std::to_string(i).c_str());
  const std::string history = host::historyText();
  EXPECT_EQ(std::count(history.begin(), history.end(), '\n'), 50);
}

// Killed at each step on the way, it is old or new as a whole, and ends where it would have.
TEST_F(Rollback, AKillAtAnyStepIsCarriedOn) {
  static const char* stopAt = nullptr;
  static Lines steps;
  setValue("Limits", "nMAX", "1");
  const Tree before = tree();
  const std::string cache = readFile(cacheFile());
  ASSERT_EQ(apply(two_), "");
  const Tree after = tree();
  host::onGoingBack([](const char* step) { steps.emplace_back(step); });
  goBack();
  ASSERT_EQ(steps.size(), 8U);
  host::onGoingBack([](const char* step) {
    if (std::string(step) == stopAt) _exit(9);
  });
  for (const std::string& step : Lines(steps)) {
    host::forgetGoneBack();
    ASSERT_EQ(apply(two_), "") << step;
    stopAt = step.c_str();
    lqregistry::UseFile("/nowhere");
    const pid_t child = startChild([this] {
      lqregistry::UseFile(registryFile_);
      static_cast<void>(host::goBack("the first reason"));
      return 0;
    });
    EXPECT_EQ(endOf(child), 9) << step;
    lqregistry::UseFile(registryFile_);
    stopAt = "";
    const Tree between = tree();
    EXPECT_TRUE(between == before || between == after) << step;
    const bool isBegun = step != "begun";
    EXPECT_EQ(host::secondsUntilGoingBack(), isBegun ? std::optional<std::int64_t>(0) : std::nullopt) << step;
    if (isBegun) {
      EXPECT_TRUE(contains(apply({record("Other", "s", "1")}), "is going back")) << step;
    }
    goBack("another");
    EXPECT_EQ(tree(), before) << step;
    EXPECT_EQ(readFile(cacheFile()), cache) << step;
    EXPECT_EQ(host::memoryState().reason.get(), isBegun ? "the first reason" : "another") << step;
    EXPECT_FALSE(host::isThere(MemoryFile::kGoing)) << step;
    const std::string history = host::historyText();
    const std::size_t last = history.rfind(" gone back: ");
    EXPECT_NE(history.substr(0, last).rfind(" kept: "), std::string::npos);
    EXPECT_LT(history.substr(0, last).rfind(" gone back: "), history.rfind(" kept: "))
        << "noted once, " << step;
  }
}

TEST_F(Rollback, AFullDiskPutsItOff) {
  setValue("Limits", "nMAX", "1");
  ASSERT_EQ(apply(two_), "");
  {
    const FullDisk full(1);
    EXPECT_TRUE(host::goBack("no room").error.IsError());
    EXPECT_EQ(stateWord(), "goingBack");
    EXPECT_EQ(valueOf("Limits", "nMAX"), "2");
    ChangeNote note(BatchKind::kWhole, {}, {});
    EXPECT_NE(note.arrive({record("A", "s", "1")}), "");
    EXPECT_TRUE(note.mayComeAgain());
  }
  goBack();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "1");

  // Without a memory only what nobody may have to go back from is applied.
  const FullDisk full(1);
  const std::tuple<OBGui::RegistryKeyInfo, PassTerms, bool> cases[] = {
      {record("Limits", "nMIN", "2"), {}, true},
      {record("Limits", "nMIN", "2"), {HostReport::kDemandVerdicts}, false},
      {record("Overhub", "sOHHOSTNAME", "elsewhere"), {}, false}};
  for (const auto& [key, word, isApplied] : cases) {
    ChangeNote note(BatchKind::kWhole, word, {});
    EXPECT_EQ(note.arrive({key}).empty(), isApplied);
    EXPECT_EQ(note.mayComeAgain(), !isApplied);
    EXPECT_TRUE(note.error().IsError());
    EXPECT_FALSE(host::isThere(MemoryFile::kBefore));
  }
}

// A key that may not be removed, as that of all clients, keeps nobody from going back.
TEST_F(Rollback, KeysThatHaveToStayAreLeftEmpty) {
  ASSERT_EQ(apply({record("SOFTWARE/Velmor/ClientProperties/42", "AnalyticSearchEngineEnabled", "1")}), "");
  goBack();
  EXPECT_EQ(stateWord(), "goneBack");
  LQPlatformInfo info;
  std::list<std::string> below;
  EXPECT_TRUE(info.getSubKeys("SOFTWARE/Velmor/ClientProperties", below) && below.empty());
}

// The time since the machine's start decides, and after another start the wall clock within the limit.
TEST_F(Rollback, ADeadlineOutlastsClocksAndRestarts) {
  const auto arm = [this] {
    now_ = {"boot", 1'000'000, 2'000'000'000};
    static_cast<void>(host::removeMemory(MemoryFile::kBefore));
    setValue("Limits", "nMAX", "1");
    EXPECT_EQ(apply(two_, {100, true}), "");
  };
  const std::tuple<std::string, std::int64_t, std::int64_t, std::int64_t> cases[] = {
      {"boot", 30, -5'000'000, 70}, {"boot", 99, 5'000'000, 1}, {"boot", 100, 0, 0},
      {"next", 0, 40, 60},          {"next", 0, 5'000'000, 0},  {"next", 0, -1'000'000'000, 100}};
  for (const auto& [boot, seconds, wall, left] : cases) {
    arm();
    now_ = {boot, boot == "boot" ? now_.sinceBoot + seconds * 1000 : 5'000, now_.wall + wall};
    EXPECT_EQ(host::secondsUntilGoingBack(), left) << boot << " " << wall;
    pass(left);
    EXPECT_EQ(host::secondsUntilGoingBack(), 0) << "counted from this start on";
  }
}

// Whoever had the old way in hand when it was changed proves nothing of the new one.
TEST_F(Rollback, OnlyALaterPassProvesTheWayBack) {
  const OBGui::KeyList elsewhere{record("Overhub", "sOHHOSTNAME", "elsewhere")};
  ChangeNote underWay(BatchKind::kWhole, {}, {});
  pass(1);
  ASSERT_EQ(apply(elsewhere, {}, BatchKind::kPart), "");
  EXPECT_TRUE(host::isWayBackUnproven());
  EXPECT_EQ(host::secondsUntilGoingBack(), 600);
  pass(1);
  EXPECT_EQ(underWay.arrive(elsewhere), "");
  EXPECT_TRUE(host::isWayBackUnproven());
  EXPECT_EQ(apply({record("Limits", "nMAX", "1")}, {}, BatchKind::kPart), "");
  EXPECT_TRUE(host::isWayBackUnproven()) << "the server came here";
  EXPECT_EQ(apply({record("Overhub", "sOHCLIENTNAME", "renamed")}, {}, BatchKind::kPart), "");
  EXPECT_EQ(host::secondsUntilGoingBack(), 599) << "from the first change of the way";
  pass(1);
  EXPECT_EQ(apply(elsewhere), "");
  EXPECT_FALSE(host::isWayBackUnproven());
  EXPECT_TRUE(contains(host::historyText(), "confirmed: "));
  EXPECT_EQ(stateWord(), "kept");
}

// What a refresh removes because its time is over is the host's own doing.
TEST_F(Rollback, ARefreshIsNoLocalChange) {
  setValue("Limits", "nMAX", "1");
  const std::string soon = std::to_string(std::time(nullptr) + 3600);
  ASSERT_EQ(apply({record("Limits", "nMAX", "2"), record("Limits", "nMAX_UNTIL", soon),
                   record("Limits", "s", "1")}),
            "");
  setValue("Limits", "s", "local");
  LqRegistryManagerClnt::setAdditionalSettingsCache(
      batchText({record("Limits", "nMAX", "2"), record("Limits", "nMAX_UNTIL", "1")}));
  host::RefreshNote note;
  ASSERT_EQ(additionalSettingsRefresh(), 1U);
  note.finish();
  ASSERT_EQ(valueOf("Limits", "nMAX"), std::nullopt);
  EXPECT_EQ(goBack().local.size(), 1U);
  EXPECT_EQ(valuesOf("Limits", {"nMAX", "nMAX_UNTIL", "s"}), "1 - local");
}

// With the server played, through passes of the host.
class CutOff : public Rollback {
 protected:
  host::PassResult download(const OBGui::KeyList* keys) {
    std::vector<PlayedServer::Script> scripts;
    if (keys != nullptr) scripts = {answering(batchText(*keys)), taking()};
    const PlayedServer server(address_, sessionKey_, scripts);
    LqPeriodicTaskStatus status;
    return passes_.download(status);
  }

  host::ProductLibrary product_;
  host::Passes passes_{product_};
};

TEST_F(CutOff, TheMachineComesBackByItself) {
  const std::string other = dir_ / "other";
  std::filesystem::create_directory(other);
  const std::string id = "SOFTWARE/Velmor/Clients/client42";
  const OBGui::RegistryKeyInfo changes[] = {record("Overhub", "sOHHOSTNAME", "127.0.0.9"),
                                            record("Overhub", "sOHCLIENTNAME", "somebody"),
                                            record("Overhub", "sSESSIONIDENTITY", "somebody"),
                                            record("Overhub", "sSESSIONKEY", std::string(64, 'a')),
                                            record("EventManager", "bEnableRegistrySync", "0"),
                                            removal("EventManager", "bEnableRegistrySync"),
                                            record("Session", "bANTICHATTER", "1"),
                                            record(id, "nCLIENTID", "43"),
                                            removal("", "Overhub", "KEY"),
                                            record("Hosts/host42", "sCLIENTNAME", "nobody"),
                                            record("Machine", "sHOSTNAME", "another"),
                                            record("Base", "dBASEHOME", other)};
  const Tree before = tree();
  const std::string cache = readFile(cacheFile());
  for (const OBGui::RegistryKeyInfo& change : changes) {
    const std::string what = change.keyPath.get() + " " + change.valueName.get();
    const OBGui::KeyList batch{change, record("Limits", "nMAX", "2")};
    host::forgetGoneBack();
    EXPECT_TRUE(download(&batch).received) << what;
    EXPECT_NE(tree(), before) << what;
    pass(599);
    EXPECT_EQ(download(nullptr).wentBack, "") << what << ": there is time left";
    EXPECT_NE(tree(), before) << what;
    pass(1);
    passes_.keepDeadline();
    EXPECT_EQ(tree(), before) << what;
    EXPECT_EQ(readFile(cacheFile()), cache) << what;
    EXPECT_FALSE(host::standingNote()) << what;
    EXPECT_TRUE(contains(host::memoryState().reason.get(), "was not reached")) << what;
    const host::PassResult again = download(&batch);
    EXPECT_EQ(again.outcome(), host::RunOutcome::kHeldBack) << what;
    EXPECT_TRUE(!again.received && !again.acknowledgedAs && again.hasEndedWell()) << what;
    EXPECT_FALSE(host::standingNote()) << "the cache is not lost, after " << what;
    EXPECT_EQ(tree(), before) << what;
  }
}

TEST_F(CutOff, WhatIsReachedStays) {
  int wanted = 0;
  host::onDownloadWanted([&wanted] { ++wanted; });
  const OBGui::KeyList batch{record("Overhub", "sOHCLIENTNAME", "renamed")};
  EXPECT_TRUE(download(&batch).received);
  EXPECT_EQ(wanted, 1) << "to prove it";
  pass(10'000);
  const host::PassResult proof = download(&batch);  // the last try, and a good one
  EXPECT_TRUE(proof.received && proof.wentBack.empty());
  EXPECT_EQ(valueOf("Overhub", "sOHCLIENTNAME"), "renamed");
  EXPECT_EQ(wanted, 1);
  EXPECT_EQ(stateWord(), "kept");

  // What has to be confirmed goes back though the server is reached; not while the host stops.
  passes_.onAsk([] { return PassTerms{60}; });
  EXPECT_TRUE(download(&two_).received);
  pass(60);
  {
    host::Passes stopping(product_);
    stopping.requestStop();
    stopping.keepDeadline();
    LqPeriodicTaskStatus status;
    EXPECT_EQ(stopping.download(status).wentBack, "");
    EXPECT_EQ(valueOf("Limits", "nMAX"), "2");
  }
  EXPECT_TRUE(contains(download(&two_).wentBack, "not confirmed"));
  EXPECT_EQ(valueOf("Limits", "nMAX"), std::nullopt);
  EXPECT_EQ(wanted, 2) << "so that the server hears of it";
  host::onDownloadWanted({});
}

// As a person does it.
TEST_F(CutOff, ByHand) {
  const auto lqhost = [this](const std::string& command) {
    return runProgram({"sh", "-c", "exec $0 --registry $1 --log-file $2 " + command, programPath("lqhost"),
                       registryFile_, dir_ / "lqhost.log"});
  };
  expectErr(lqhost("rollback"), 1, {"nothing is kept"});
  expectOut(lqhost("history"), 0, {"No pass has changed"});
  const OBGui::KeyList batch{record("Limits", "nMAX", "2"), record("Limits", "nMIN", "2")};
  EXPECT_TRUE(download(&batch).received);
  expectOut(lqhost("status"), 0, {"changes       3 places changed ", "; `lqhost rollback` goes back"});
  setValue("Limits", "nMIN", "local");
  expectOut(lqhost("rollback"), 4,
            {"removed  SOFTWARE/Velmor/Instance001/Limits  nMAX\n",
             "left     SOFTWARE/Velmor/Instance001/Limits  nMIN\n", "1 values are as they were"});
  EXPECT_EQ(valuesOf("Limits", {"nMAX", "nMIN"}), "- local");
  expectOut(lqhost("status"), 11, {"went back from 3 places", "by hand, with lqhost rollback"});
  const auto sync = [&] {
    const PlayedServer server(address_, sessionKey_, {answering(batchText(batch)), taking()});
    return lqhost("sync");
  };
  expectErr(sync(), 11, {"the batch was not applied: this machine went back"});
  expectOut(lqhost("history"), 0,
            {" kept: 3 places", " gone back: 3 places", "1 left as somebody had changed them"});
  expectOut(lqhost("rollback --forget"), 0, {"forgotten"});
  expectOut(sync(), 0, {"acknowledged: taskStatus 3"});

  // Without a resident host the new way is tried before the command ends.
  const OBGui::KeyList moved{record("Overhub", "sOHHOSTNAME", "127.0.0.9")};
  const PlayedServer server(address_, sessionKey_, {answering(batchText(moved)), taking()});
  expectErr(lqhost("sync --fresh --way-back-limit 50"), 1,
            {"the way to the server was changed", "; goes back 20"});
}

}  // namespace
