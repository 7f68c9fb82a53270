// Verdicts: who is asked, when, with what, and what is told of each; functions and callbacks that do not end
// are held by a gate that the test opens, so that no limit decides what happens.
#include <dlfcn.h>

#include <stdexcept>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqVerdicts.h"
#include "lqregistry/UtcText.h"
#include "tests/support/product_fixture.h"

namespace {

using std::chrono::milliseconds;
using Key = const OBGui::RegistryKeyInfo&;

constexpr const char* kPath = "Machine/Settings";
// One that nobody reaches, and one that what is held reaches at once.
constexpr LqVerdicts::Limits kPatient{std::chrono::minutes(2), std::chrono::minutes(2)};
constexpr LqVerdicts::Limits kNoTimeEach{milliseconds(0), std::chrono::minutes(2)};
constexpr LqVerdicts::Limits kNoTime{std::chrono::minutes(2), milliseconds(0)};

// Holds who comes by until it is opened.
struct Gate {
  void pass() {
    ++entered;
    isOpen.wait(false);
  }
  void open() {
    isOpen = true;
    isOpen.notify_all();
  }
  void awaitEntered(int count) const {
    while (entered < count) std::this_thread::yield();
  }
  std::atomic<int> entered{0};
  std::atomic<bool> isOpen{false};
};
Gate functionGate;
Gate callbackGate;
std::atomic<int> callbacksEnded{0};
std::atomic<int> asked{0};
OBGui::RegistryKeyInfo seen;

void heldCallback(OBGui::RegistryKeyInfo key) {
  callbackGate.pass();
  if (key.valueName.get() == "sCOUNT") ++callbacksEnded;
}
LqVerdict held(Key) {
  functionGate.pass();
  return LqVerdict::inEffect("late");
}
LqVerdict counting(Key key) {
  ++asked;
  seen = key;
  return LqVerdict::inEffect(std::to_string(callbacksEnded) + " callbacks before");
}
LqVerdict refusing(Key key) {
  return LqVerdict::refused(key.value);
}
LqVerdict restarting(Key) {
  return LqVerdict::needsRestart("of the spooler");
}
LqVerdict throwing(Key key) {
  if (key.value.get() == "7") throw 7;
  throw std::runtime_error(key.value.get());
}
LqVerdict leaving(Key key) {
  LqVerdicts::UnRegister(key.keyPath, key.valueName);
  LqVerdicts::Register("heir", key.keyPath, "sHEIR", &counting);
  return LqVerdict::refused("gone");
}

class Verdicts : public ProductTest {
 protected:
  ~Verdicts() override {
    functionGate.open();
    callbackGate.open();
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();
    LqVerdicts::threadPool().waitIdle();
  }
  static void add(const std::string& name, LqVerdicts::Function function, const char* module = "mod") {
    LqVerdicts::Register(module, kPath, name, function);
  }
  static OBGui::KeyList changes(const Lines& names) {
    OBGui::KeyList list;
    for (const std::string& name : names) list.push_back(record(kPath, name, "1"));
    return list;
  }
  // "module name verdict: sentence" of each.
  static Lines ask(const OBGui::KeyList& changed, const LqVerdicts::Limits& limits = kPatient,
                   const std::stop_token& stop = {}) {
    Lines lines;
    for (const LqVerdicts::Told& told : LqVerdicts::Ask(changed, limits, stop)) {
      EXPECT_EQ(told.keyPath, kPath);
      EXPECT_EQ(told.isGood(), told.verdict == "inEffect" || told.verdict == "needsRestart") << told.verdict;
      lines.push_back(told.module + " " + told.valueName + " " + told.verdict + ": " + told.sentence);
    }
    return lines;
  }
  // Queues the callback of that name, which is held.
  static void change(const std::string& name) {
    LqRegistryChangeMgr& manager = *LqRegistryChangeMgr::GetInstance();
    manager.Register(kPath, name, &heldCallback);
    ASSERT_EQ(manager.HandleCallbackForRegistry(record(kPath, name, "1")), 0);
  }
  static std::int64_t hangsSince(const std::string& name) {
    for (const auto& one : LqVerdicts::Registered())
      if (one.valueName == name) return one.hangsSince;
    return -1;
  }
  static void awaitFree(const std::string& name) {
    while (hangsSince(name) != 0) std::this_thread::yield();
  }
  static void awaitPending(const LqThreadPool& pool, std::size_t count) {
    while (pool.pendingCount() < count) std::this_thread::yield();
  }
  const LqThreadPool& callbackPool_ = LqRegistryChangeMgr::callBackThreadPool;
};

TEST_F(Verdicts, AreAskedOfEachChangedPairOnceAndToldInTheOrderOfTheRecords) {
  EXPECT_EQ(ask(changes({"sCOUNT"})), Lines{});
  add("sCOUNT", &refusing);
  add("sCOUNT", &counting);  // the last one wins
  add("sRESTART", &restarting);
  add("sREFUSE", &refusing, "another");
  add("sTHROW", &throwing);
  add("sTHROW7", &throwing);
  add("sLEAVE", &leaving);
  add("sUNCHANGED", &counting);
  {
    const oblog::Capture log;
    add("sCOUNT", nullptr);
    EXPECT_TRUE(hasLine(log, "error|LqVerdicts::Register|[mod] registers no function"));
  }
  OBGui::KeyList changed = changes({"sREFUSE", "scount", "sNOBODY", "sLEAVE", "sRESTART"});
  changed.push_back(record("~Machine/Settings", "sRESTART", "1"));
  changed.push_back(record(kPath, "sTHROW", "no such\nspooler"));
  changed.push_back(record(kPath, "sTHROW7", "7"));
  changed.push_back(record(kPath, "sREFUSE", "the last record"));
  changed.push_back(secretRecord(kPath, "sCOUNT", "hunter2"));
  const oblog::Capture log;
  EXPECT_EQ(ask(changed),
            (Lines{"another sREFUSE refused: the last record", "mod sLEAVE refused: gone",
                   "mod sRESTART needsRestart: of the spooler", "mod sTHROW threw: no such\nspooler",
                   "mod sTHROW7 threw: " + std::string(LqThreadPool::kNamelessFault),
                   "mod sCOUNT inEffect: 0 callbacks before"}));
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(seen.equals(changed.back())) << "the whole record";
  EXPECT_TRUE(hasLine(log, R"(error|LqVerdicts::Ask|[mod] on [Machine/Settings\sLEAVE]: refused: gone)"));

  std::string all;
  for (const auto& one : LqVerdicts::Registered())
    all += one.module + " " + one.keyPath + " " + one.valueName + (one.hangsSince == 0 ? "; " : " hangs; ");
  const std::string path = std::string(" ") + kPath + " ";
  EXPECT_EQ(all, "mod" + path + "sCOUNT; heir" + path + "sHEIR; another" + path + "sREFUSE; mod" + path +
                     "sRESTART; mod" + path + "sTHROW; mod" + path + "sTHROW7; mod" + path + "sUNCHANGED; ");
  EXPECT_EQ(ask(changes({"sLEAVE", "sHEIR"})), Lines{"heir sHEIR inEffect: 0 callbacks before"});
}

TEST_F(Verdicts, HaveSentencesThatEndWithACharacter) {
  add("sREFUSE", &refusing, std::string(600, 'm').c_str());
  const struct {
    std::size_t ascii;
    std::string character;
    std::size_t length;
  } cases[] = {{511, "a", 512}, {512, "a", 512}, {511, "é", 511}, {510, "é", 512},
               {510, "€", 510}, {509, "😀", 509}, {508, "😀", 512}, {0, "\x80", 509}};
  for (const auto& [ascii, character, length] : cases) {
    std::string text(ascii, 'x');
    for (int i = 0; i < (ascii == 0 ? 1000 : 3); ++i) text += character;
    const auto told = LqVerdicts::Ask({record(kPath, "sREFUSE", text)}, kPatient);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].sentence, text.substr(0, length)) << ascii << character;
    EXPECT_EQ(told[0].module.size(), 512U);
  }
}

TEST_F(Verdicts, AreAskedAfterTheCallbacksOfTheirPairWhichLimitsOfFunctionsDoNotCount) {
  add("sCOUNT", &counting);
  add("sHELD", &held);
  for (const char* name : {"sCOUNT", "sCOUNT", "sHELD"}) change(name);
  Lines told;
  std::jthread asking([&] { told = ask(changes({"sHELD"}), kNoTimeEach); });
  while (LqRegistryChangeMgr::callBackThreadPool.pendingCount() < 4 && told.empty() &&
         functionGate.entered == 0)
    std::this_thread::yield();
  std::jthread alsoAsking(
      [] { EXPECT_EQ(ask(changes({"sCOUNT"})).at(0), "mod sCOUNT inEffect: 2 callbacks before"); });
  while (LqRegistryChangeMgr::callBackThreadPool.pendingCount() < 5 && asked == 0) std::this_thread::yield();
  callbackGate.open();
  asking.join();
  EXPECT_EQ(told, Lines{"mod sHELD noAnswer: it did not answer within 0 s"});
}

TEST_F(Verdicts, OfAFunctionThatHangsAreNotAskedForAgainBeforeItHasReturned) {
  add("sHELD", &held);
  add("sCOUNT", &counting);
  const std::int64_t before = std::time(nullptr);
  EXPECT_EQ(ask(changes({"sHELD"}), kNoTimeEach), Lines{"mod sHELD noAnswer: it did not answer within 0 s"});
  const std::int64_t since = hangsSince("sHELD");
  EXPECT_TRUE(before <= since && since <= std::time(nullptr)) << since;
  const std::string stillHangs =
      "it has not answered since " + lqtext::utcText(since) + ", and is not asked again before it does";
  EXPECT_EQ(ask(changes({"sHELD", "sCOUNT"})),
            (Lines{"mod sHELD noAnswer: " + stillHangs, "mod sCOUNT inEffect: 0 callbacks before"}));
  EXPECT_EQ(LqVerdicts::Ask(changes({"sHELD"})).at(0).since, since);
  EXPECT_EQ(functionGate.entered, 1);

  // A new registration is asked, by two at a time; what the first gives up, the second does not wait for.
  add("sHELD", &held);
  EXPECT_EQ(hangsSince("sHELD"), 0);
  std::jthread first([](const std::stop_token& stop) {
    EXPECT_EQ(ask(changes({"sHELD"}), kPatient, stop),
              Lines{"mod sHELD noAnswer: it did not answer before the host stopped"});
  });
  functionGate.awaitEntered(2);
  Lines told;
  std::jthread second([&] { told = ask(changes({"sHELD"})); });
  awaitPending(LqVerdicts::threadPool(), 3);
  first.request_stop();
  second.join();
  EXPECT_TRUE(contains(told.at(0), "and is not asked again before it does")) << told[0];
  functionGate.open();
  awaitFree("sHELD");
  LqVerdicts::threadPool().waitIdle();
  EXPECT_EQ(functionGate.entered, 2) << "nobody waits for what was given up";
  EXPECT_EQ(ask(changes({"sHELD"})), Lines{"mod sHELD inEffect: late"});
}

TEST_F(Verdicts, TellACallbackThatHangsFromATurnThatDidNotCome) {
  add("sCOUNT", &counting);
  add("sREFUSE", &refusing);
  change("sCOUNT");
  callbackGate.awaitEntered(1);
  EXPECT_EQ(
      ask(changes({"sCOUNT"}), kNoTime),
      Lines{"mod sCOUNT noAnswer: it was not asked: its change callback did not end within the 0 s for all"});
  EXPECT_EQ(ask(changes({"sCOUNT", "sREFUSE"})),
            (Lines{"mod sCOUNT noAnswer: it was not asked: its change callback has not ended since " +
                       lqtext::utcText(hangsSince("sCOUNT")),
                   "mod sREFUSE refused: 1"}));
  for (const char* name : {"sOTHER", "sTHIRD"}) change(name);
  callbackGate.awaitEntered(3);
  EXPECT_EQ(ask(changes({"sREFUSE"}), kNoTime),
            Lines{"mod sREFUSE noAnswer: it was not asked: its turn did not come within the 0 s for all"});
  EXPECT_EQ(hangsSince("sREFUSE"), 0);
  std::jthread asking(
      [] { EXPECT_EQ(ask(changes({"sREFUSE"})), Lines{}) << "it was unregistered meanwhile"; });
  awaitPending(callbackPool_, 6);
  LqVerdicts::UnRegister(kPath, "sREFUSE");
  asking.join();
  callbackGate.open();
  awaitFree("sCOUNT");
  EXPECT_EQ(ask(changes({"sCOUNT"})), Lines{"mod sCOUNT inEffect: 1 callbacks before"});
  EXPECT_EQ(asked, 1);
}

TEST_F(Verdicts, WaitForAThreadWhenAsManyHangAsThereAre) {
  Lines names;
  for (std::uint32_t i = 0; i < LqVerdicts::kMaxThreads; ++i) {
    names.push_back("sHELD" + std::to_string(i));
    add(names.back(), &held);
  }
  for (const std::string& told : ask(changes(names), kNoTimeEach))
    EXPECT_TRUE(contains(told, "it did not answer within 0 s")) << told;
  EXPECT_EQ(LqVerdicts::threadPool().threadCount(), LqVerdicts::kMaxThreads);
  add("sCOUNT", &counting);
  std::jthread stopped([](const std::stop_token& stop) {
    EXPECT_EQ(ask(changes({"sCOUNT"}), kPatient, stop),
              Lines{"mod sCOUNT noAnswer: it was not asked: its turn did not come before the host stopped"});
  });
  awaitPending(LqVerdicts::threadPool(), LqVerdicts::kMaxThreads + 1);
  stopped.request_stop();
  stopped.join();
  std::jthread replaced([] { EXPECT_EQ(ask(changes({"sCOUNT"})), Lines{}); });
  awaitPending(LqVerdicts::threadPool(), LqVerdicts::kMaxThreads + 2);
  add("sCOUNT", &refusing);
  functionGate.open();
  replaced.join();
  LqVerdicts::threadPool().waitIdle();
  EXPECT_EQ(asked, 0);
}

TEST_F(Verdicts, LetTheProcessEndInSpiteOfAFunctionThatHangs) {
  // Forked before this process has threads, which a child would lack.
  const pid_t child = startChild([] {
    add("sHELD", &held);
    LqVerdicts::threadPool().setExitWait(milliseconds(0));
    std::exit(ask(changes({"sHELD"}), kNoTimeEach).size() == 1 ? 7 : 8);
    return 9;
  });
  EXPECT_EQ(endOf(child), 7);
}

TEST_F(Verdicts, OfTheSampleModuleRefuseALevelThatThereIsNot) {
  void* const module = dlopen(LQ_LIB_DIR "/lq_sample_module.so", RTLD_NOW);
  ASSERT_NE(module, nullptr);
  reinterpret_cast<int (*)()>(dlsym(module, "LqHostModule_Register"))();
  const std::string refusal = "refused: trace levels are 0 to 10, not ";
  const std::pair<OBGui::RegistryKeyInfo, std::string> cases[] = {
      {record(kPath, "nTraceLevel", "10"), "inEffect: "},
      {record(kPath, "nTraceLevel", "11"), refusal + "11"},
      {record(kPath, "nTraceLevel", "-1"), refusal + "-1"},
      {record(kPath, "nTraceLevel", "5x"), refusal + "5x"},
      {removal(kPath, "nTraceLevel"), "inEffect: the level is the default's again"},
      {disabled(kPath, "nTraceLevel", "11"), "inEffect: the level is the default's again"}};
  for (const auto& [key, verdict] : cases)
    EXPECT_EQ(ask({key}).at(0), "sample module nTraceLevel " + verdict);
}

}  // namespace
