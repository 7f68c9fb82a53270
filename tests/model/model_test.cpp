// Random histories of one machine against a model of what must hold: whatever the server sets, removes, lets
// expire, forgets or pushes, and however often the machine's processes are restarted or killed, registry and
// cache are what the model says. The model is written from the rules, not from the code: records by path and
// name, a clock, a list.
//
// Every step of the machine runs in a process of its own, which a helper without threads starts; to kill one,
// its n-th call that changes a file ends it. So a history follows from its seed alone. LQ_MODEL_SEED and
// LQ_MODEL_STEPS choose another one (scripts/torture does); a failure prints the seed and the step.
#include <fcntl.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <utility>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"
#include "tests/platform/registry_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

std::int64_t frozenClock = 0;  // what this process takes for the time; 0: the real one
int callsUntilDeath = -1;      // calls that change a file until this process is killed; -1: it lives

template <class... Arguments>
long changeFile(long number, Arguments... arguments) {
  if (callsUntilDeath == 0) kill(getpid(), SIGKILL);
  if (callsUntilDeath > 0) --callsUntilDeath;
  return syscall(number, arguments...);
}

}  // namespace

// In the place of the C library's, for the libraries under test, too.
extern "C" {
#define INTERPOSED __attribute__((visibility("default")))
INTERPOSED time_t time(time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t shown = frozenClock != 0 ? frozenClock : now.tv_sec;
  if (out != nullptr) *out = shown;
  return shown;
}
#define CHANGES_A_FILE(result, declared, ...)            \
  INTERPOSED result declared {                           \
    return static_cast<result>(changeFile(__VA_ARGS__)); \
  }
CHANGES_A_FILE(ssize_t, write(int file, const void* data, size_t size), SYS_write, file, data, size)
CHANGES_A_FILE(ssize_t, pwrite64(int file, const void* data, size_t size, off64_t at), SYS_pwrite64, file,
               data, size, at)
CHANGES_A_FILE(int, ftruncate64(int file, off64_t size) noexcept, SYS_ftruncate, file, size)
CHANGES_A_FILE(int, fsync(int file), SYS_fsync, file)
CHANGES_A_FILE(int, fdatasync(int file), SYS_fdatasync, file)
CHANGES_A_FILE(int, rename(const char* from, const char* to) noexcept, SYS_rename, from, to)
CHANGES_A_FILE(int, unlink(const char* path) noexcept, SYS_unlink, path)
}

namespace {

// --- the model ---------------------------------------------------------------------------------------------

struct Record {
  std::string path;
  std::string name;
  std::string value;
  std::string type = "STRING";
  std::int64_t deleteFlag = 0;
  std::int64_t enabledFlag = 1;

  bool operator==(const Record&) const = default;
};
using Records = std::vector<Record>;
using Registry = std::map<std::pair<std::string, std::string>, std::string>;

constexpr std::string_view kUntil = "_UNTIL";

struct Model {
  Registry registry;
  std::optional<Records> cache;  // none: no cache, or an empty file
  Records server;
  std::int64_t now = 0;

  bool operator==(const Model&) const = default;

  static std::pair<std::string, std::string> placeOf(const Record& record) {
    const bool isRooted = record.path.starts_with('~');
    return {isRooted ? record.path.substr(1) : record.path, record.name};
  }

  // False when a record could not be applied. Marks what has expired in `records`.
  bool apply(Records& records) {
    std::map<std::string, bool> isExpired;
    for (Record& record : records) {
      if (record.name.size() <= kUntil.size() || !record.name.ends_with(kUntil)) continue;
      if (std::atoi(record.value.c_str()) >= now) continue;
      record.deleteFlag = 1;
      isExpired[record.name.substr(0, record.name.size() - kUntil.size())] = true;
    }
    bool isClean = true;
    for (Record& record : records) {
      if (isExpired.contains(record.name)) record.deleteFlag = 1;
      if (record.type == "KEY") {
        isClean = isClean && (record.deleteFlag == 1 || record.enabledFlag == 0);
      } else if (record.deleteFlag == 1 || record.enabledFlag == 0) {
        registry.erase(placeOf(record));
      } else {
        registry[placeOf(record)] = record.value;
      }
    }
    return isClean;
  }

  // The states that a pass goes through on disk, the last one when it ends; `isClean` as it is acknowledged.
  std::vector<Model> pass(bool& isClean) const {
    std::vector<Model> states{*this};
    Model after = *this;
    Records reply = server;
    isClean = after.apply(reply);
    states.push_back(after);
    // A reply with fewer records than the cache leaves the cache alone.
    if (cache && cache->size() > reply.size()) return states;
    Records kept;
    for (const Record& record : reply) {
      if (record.deleteFlag != 1) kept.push_back(record);
      if (record.deleteFlag != 1 || record.name != "dOBLOGDIR") continue;
      Records repair{record};
      repair[0].deleteFlag = 0;
      repair[0].value = "/opt/x/Log_Files";
      after.apply(repair);
      states.push_back(after);
    }
    after.cache = std::nullopt;
    states.push_back(after);
    after.cache = kept;
    states.push_back(after);
    return states;
  }

  std::vector<Model> refresh() const {
    std::vector<Model> states{*this};
    if (!cache) return states;
    Model after = *this;
    Records working;
    for (const Record& record : *cache)
      if (record.name != "sCOHDbStatus") working.push_back(record);
    after.apply(working);
    states.push_back(after);
    std::erase_if(working, [](const Record& record) { return record.deleteFlag == 1; });
    after.cache = std::nullopt;
    states.push_back(after);
    after.cache = working;
    states.push_back(after);
    return states;
  }
};

// --- histories ---------------------------------------------------------------------------------------------

struct Step {
  enum Kind { kSet, kForget, kDrift, kClock, kPass, kUnreachable, kRefresh, kPush } kind;
  Record record;          // kSet, kForget and kDrift: its place
  std::int64_t step = 0;  // kClock; for kSet of an _UNTIL: how far ahead
  int callsUntilDeath = -1;
};

std::string describe(const Step& step) {
  static constexpr const char* kNames[] = {"set",  "forget",      "drift",   "clock",
                                           "pass", "unreachable", "refresh", "push"};
  return std::string(kNames[step.kind]) + " " + step.record.path + " " + step.record.name + " by " +
         std::to_string(step.step) + ", killed at call " + std::to_string(step.callsUntilDeath);
}

std::vector<Step> historyOf(unsigned seed, int steps) {
  std::mt19937 random(seed);
  const auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
  const std::vector<std::string> paths{"A", "~A", "B/C", "EventManager", "SOFTWARE/Velmor/Shared"};
  const std::vector<std::string> names{"sX",           "sX_UNTIL",  "nT",      "nT_UNTIL",
                                       "sCOHDbStatus", "dOBLOGDIR", "sSECRET", "_UNTIL"};
  const std::vector<std::string> values{"", "1", "two", "a\nb<\\>&\"\xc3\xa9", std::string(2000, 'v')};
  std::vector<Step> history;
  for (int i = 0; i < steps; ++i) {
    Step step{};
    const int dice = below(100);
    step.kind = dice < 40   ? Step::kSet
                : dice < 46 ? Step::kForget
                : dice < 54 ? Step::kDrift
                : dice < 59 ? Step::kClock
                : dice < 77 ? Step::kPass
                : dice < 80 ? Step::kUnreachable
                : dice < 93 ? Step::kRefresh
                            : Step::kPush;
    step.record.path = paths[static_cast<std::size_t>(below(5))];
    step.record.name = names[static_cast<std::size_t>(below(8))];
    step.record.value = values[static_cast<std::size_t>(below(5))];
    if (step.kind == Step::kSet) {
      step.step = below(5) == 0 ? 0 : below(4000) - 1000;  // an expiry at this very second, too
      step.record.deleteFlag = below(6) == 0 ? 1 : 0;
      step.record.enabledFlag = below(9) == 0 ? 0 : 1;
      if (step.record.name == "sSECRET") step.record.type = "ENCRYPTED";
      if (below(40) == 0) step.record.type = "KEY";
    }
    if (step.kind == Step::kClock) step.step = below(5000) - 1500;
    if (step.kind >= Step::kPass && below(3) == 0) step.callsUntilDeath = below(30);
    history.push_back(step);
  }
  return history;
}

// --- the machine's processes -------------------------------------------------------------------------------

// What the starter is told: what to do, in which registry, at which time, and when to die. A pushed batch
// follows as text.
struct Order {
  char registry[256];
  Step::Kind kind;
  std::int64_t now;
  int callsUntilDeath;
};

// Runs one step of the machine in this process.
int perform(const Order& order, const std::string& pushed) {
  oblog::Settings quiet;
  quiet.toStandardError = false;
  static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
  OBGui::RegisterSubsystem();
  LQPI_Focus::setFocus("Instance001");
  lqregistry::UseFile(order.registry);
  frozenClock = order.now;
  callsUntilDeath = order.callsUntilDeath;
  LqRegistryManagerClnt client("Instance001");
  if (order.kind == Step::kRefresh) return additionalSettingsRefresh() == 1 ? 0 : 1;
  if (order.kind != Step::kPush) return static_cast<int>(client.downLoadAndUpdateClient());
  OBGui::RegistryTaskResp request;
  if (request.unserialize(pushed) != 0) return 100;
  client.serverRequestHandler(request);
  return static_cast<int>(client.serverRequest.taskStatus.get());
}

// Runs one from a process without threads: what it forks may start threads of its own. Returns how it ended.
int start(const std::string& text) {
  Order order{};
  std::memcpy(&order, text.data(), sizeof order);
  return endOf(startChild([&] { return perform(order, text.substr(sizeof order)); }));
}

// One machine with its registry, its server and its model, for one history.
class Machine : public ProductTest {
 public:
  explicit Machine(const OtherProcess& starter) : starter_(starter) {
    join();
    EXPECT_FALSE(pstring("makes the key").getV8Password().empty());
    model_.now = std::time(nullptr);
    model_.registry = held();
    server_ = std::make_unique<ScriptedPeer>(address_, 8400, "client42", sessionKey_,
                                             [this](PeerSession& peer) { answer(peer); });
  }
  void TestBody() override {}

  // Empty, or what does not hold after the step.
  std::string take(const Step& step) {
    if (step.kind > Step::kClock) return runProcess(step);
    if (step.kind <= Step::kForget) changeServer(step);
    if (step.kind == Step::kClock) model_.now += step.step;
    if (step.kind != Step::kDrift) return {};
    lqregistry::UseFile(registryFile_);
    setValue(step.record.path, step.record.name, step.record.value);
    model_.registry[Model::placeOf(step.record)] = step.record.value;
    return {};
  }

 private:
  void changeServer(const Step& step) {
    Record record = step.record;
    if (record.name.ends_with(kUntil) && record.type != "KEY")
      record.value = std::to_string(model_.now + step.step);
    std::erase_if(model_.server,
                  [&](const Record& r) { return r.path == record.path && r.name == record.name; });
    if (step.kind == Step::kSet) model_.server.push_back(record);
  }

  static OBGui::KeyList keysOf(const Records& records) {
    OBGui::KeyList keys;
    for (const Record& r : records) {
      keys.push_back(record(r.path, r.name, r.value, r.type));
      if (r.type == "ENCRYPTED") keys.back().encryptedValue = pstring(r.value);
      keys.back().deleteFlag = r.deleteFlag;
      keys.back().enabledFlag = r.enabledFlag;
    }
    return keys;
  }

  void answer(PeerSession& peer) {
    if (!isReachable_ || !peer.acceptAttach()) return;
    const std::string request = peer.readFrame().payload;
    OBGui::RegistryTaskResp acknowledgement;
    if (acknowledgement.unserialize(request) == 0) {
      acknowledged_ = acknowledgement.taskStatus;
    } else {
      const std::lock_guard lock(mutex_);
      peer.writeFrame(PeerSession::kMessage, replyText_);
    }
    peer.answerGoodbye();
  }

  // The stored form of secrets is an encryption of them; the model holds them in clear.
  static std::string clear(const std::string& name, const std::string& value) {
    pstring secret;
    return name == "sSECRET" && value.starts_with("V8:") && pstring::fromV8Password(value, secret)
               ? std::string(secret.reveal())
               : value;
  }
  static Registry held() {
    Registry values;
    LQPlatformInfo info;
    for (const char* path : {"A", "B/C", "EventManager", "SOFTWARE/Velmor/Shared"}) {
      std::map<std::string, std::string> found;
      info.getRegValues(path, found);
      for (const auto& [name, value] : found) values[{path, name}] = clear(name, value);
    }
    return values;
  }
  std::optional<Records> cached() const {
    if (readFile(cacheFile()).empty()) return std::nullopt;
    const OBGui::RegistryTaskResp batch = ProductTest::cached();
    Records records;
    for (const OBGui::RegistryKeyInfo& key : batch.keys.get())
      records.push_back(
          {key.keyPath, key.valueName, key.value, key.valueType, key.deleteFlag, key.enabledFlag});
    return records;
  }

  std::string runProcess(const Step& step) {
    bool isClean = true;
    std::vector<Model> states{model_};
    Records pushed;
    if (step.kind == Step::kPass) states = model_.pass(isClean);
    if (step.kind == Step::kRefresh) states = model_.refresh();
    if (step.kind == Step::kPush) {
      pushed = model_.server;
      pushed.resize(pushed.size() / 2);
      Records marked = pushed;
      states.push_back(model_);
      isClean = states.back().apply(marked);
    }
    isReachable_ = step.kind == Step::kPass;
    acknowledged_ = 0;
    {
      const std::lock_guard lock(mutex_);
      replyText_ = batchText(keysOf(model_.server));
    }
    const std::string push = batchText(keysOf(pushed));
    Order order{{}, step.kind, model_.now, step.callsUntilDeath};
    std::strncpy(order.registry, registryFile_.c_str(), sizeof order.registry - 1);
    lqregistry::UseFile("/nowhere");  // this process has no connection while that one works
    const int end =
        starter_.answerTo(std::string(reinterpret_cast<const char*>(&order), sizeof order) + push);
    lqregistry::UseFile(registryFile_);

    Model found = model_;
    found.registry = held();
    found.cache = cached();
    const bool isKilled = end == -SIGKILL && step.callsUntilDeath >= 0;
    if (!isKilled && end < 0) return "ended by signal " + std::to_string(-end);
    const std::int64_t outcome = isClean ? OBGui::kTaskSuccess : OBGui::kTaskFailed;
    if (!isKilled) {
      if (found != states.back()) return difference(found, states.back());
      if (step.kind == Step::kPass && acknowledged_ != outcome)
        return "acknowledged " + std::to_string(acknowledged_) + " instead of " + std::to_string(outcome);
      if (step.kind == Step::kPush && end != outcome) return "answered a push with " + std::to_string(end);
    } else if (std::find(states.begin(), states.end(), found) == states.end()) {
      return "killed between two states: " + difference(found, states.back());
    }
    model_ = found;
    return {};
  }

  static std::string difference(const Model& found, const Model& wanted) {
    std::vector<std::pair<std::pair<std::string, std::string>, std::string>> places;
    std::set_symmetric_difference(found.registry.begin(), found.registry.end(), wanted.registry.begin(),
                                  wanted.registry.end(), std::back_inserter(places));
    return testing::PrintToString(places) + (found.cache == wanted.cache ? "" : " and the cache");
  }

  const OtherProcess& starter_;
  Model model_;
  std::mutex mutex_;  // guards the text, which the server's thread sends
  std::string replyText_;
  std::atomic<bool> isReachable_{false};
  std::atomic<std::int64_t> acknowledged_{0};
  std::unique_ptr<ScriptedPeer> server_;
};

std::string play(const OtherProcess& starter, const std::vector<Step>& history) {
  Machine machine(starter);
  for (std::size_t i = 0; i < history.size(); ++i)
    if (const std::string wrong = machine.take(history[i]); !wrong.empty())
      return "step " + std::to_string(i) + " (" + describe(history[i]) + "): " + wrong;
  return {};
}

unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::atoi(text));
}

class ModelHistory : public testing::TestWithParam<unsigned> {};

TEST_P(ModelHistory, RegistryAndCacheAreWhatTheHistoryMakesThem) {
  const OtherProcess starter(start);  // before this process has threads
  const unsigned seed = fromEnvironment("LQ_MODEL_SEED", GetParam());
  const std::vector<Step> history = historyOf(seed, static_cast<int>(fromEnvironment("LQ_MODEL_STEPS", 150)));
  EXPECT_EQ(play(starter, history), "") << "seed " << seed;
}

INSTANTIATE_TEST_SUITE_P(Histories, ModelHistory, testing::Values(1U, 2U, 3U));

}  // namespace
