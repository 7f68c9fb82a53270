// A fleet whose servers and database die under it: real programs, a primary with a synchronous standby, two
// servers, and machines that know them by a name with two addresses.
#include <csignal>
#include <deque>
#include <mutex>
#include <sstream>

#include "overhub/store/store.h"
#include "tests/lqhost/host_fixture.h"
#include "tests/support/postgresql.h"

namespace {

using test_support::PostgresServer;

// A sanitizer makes each program many times as slow.
constexpr int kMachines = kIsSanitized ? 40 : 200;
constexpr int kAtOnce = 8;
constexpr std::chrono::seconds kLongestWave{90};
constexpr std::chrono::milliseconds kPause{250};  // after a pass in vain

// In the order in which the name service gives their addresses, "hub-N" is a name of both servers with the
// Nth first.
const std::string kNames[] = {"hub-0.example", "hub-1.example"};
const std::string kPath = "Fleet/Settings";

struct Machine {
  std::string name;
  std::string registry;
  bool hasJoined = false;
  int passes = 0;
  int acknowledged = 0;  // as it was told
};

struct Change {
  std::string target;
  std::string name;
  bool isDone = false;  // as it was told
};

class FailoverTest : public HostTest {
 protected:
  FailoverTest() {
    writeFile(dir_ / "hosts", address_ + " " + kNames[0] + "\n" + listen_ + " " + kNames[0] + "\n" + listen_ +
                                  " " + kNames[1] + "\n" + address_ + " " + kNames[1] + "\n");
    // A name service of their own. Of the sanitizers, one wants to be loaded before it, and one takes its
    // locks for faults.
    onMachine_ = {"LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_HOSTS=" + (dir_ / "hosts"),
                  "ASAN_OPTIONS=verify_asan_link_order=0", "TSAN_OPTIONS=report_mutex_bugs=0"};
  }
  ~FailoverTest() override { stopChanging(); }

  // The second server has the key of the first, and nothing else of its directory.
  std::string dataOf(int server) const { return dir_ / ("server-" + std::to_string(server)); }
  std::vector<std::string> command(int server, std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(),
                     {programPath("overhub"), "--data", dataOf(server), "--store", store_});
    return arguments;
  }
  std::unique_ptr<BackgroundProgram> serve(int server) const {
    const std::string& address = server == 0 ? address_ : listen_;
    auto program = std::make_unique<BackgroundProgram>(command(server, {"serve", "--listen", address}),
                                                       dataOf(server) + ".log");
    EXPECT_TRUE(program->waitForOutput("overhub ready")) << program->output();
    return program;
  }
  // Half of the machines look for the first server before the second one, half the other way round.
  void enrol() {
    for (int half = 0; half < 2; ++half) {
      const std::string group = half == 0 ? "even" : "odd";
      outOf(runProgram(command(0, {"add-group", group, "--number", std::to_string(half + 1)})));
      std::string list;
      for (int number = half; number < kMachines; number += 2) {
        const std::string name = "pc" + std::to_string(number);
        list += name + "," + group + "\n";
        machines_.push_back({name, dir_ / (name + ".db")});
      }
      const std::string file = dir_ / "machines.csv";
      writeFile(file, list);
      outOf(runProgram(command(
          0, {"add-client", "--from", file, "--join-dir", dir_ / "joins", "--server-host", kNames[half]})));
    }
    std::filesystem::create_directory(dataOf(1), dataOf(0));
    std::filesystem::copy(dataOf(0) + "/secret.key", dataOf(1));
  }

  // --- machines ---

  ProgramResult lqhost(const Machine& machine, std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {programPath("lqhost"), "--registry", machine.registry});
    return runProgram(arguments, onMachine_);
  }
  // Whether the machine was told that its pass was recorded.
  bool pass(Machine& machine) const {
    if (!machine.hasJoined) {
      outOf(lqhost(machine, {"join", dir_ / "joins/" + machine.name + ".join", "--home",
                             dir_ / ("home-" + machine.name), "--machine", machine.name}));
      machine.hasJoined = true;
    }
    const auto done = lqhost(machine, {"sync"});
    ++machine.passes;
    if (done.exitCode == 0) {
      ++machine.acknowledged;
      return true;
    }
    // No batch came, or its acknowledgement was not recorded. A server that dies is no reason for anything
    // else.
    EXPECT_TRUE(done.exitCode == 1 || done.exitCode == 9) << machine.name << ": " << done.out << done.err;
    return false;
  }
  // Passes of the machines, some at a time and over and over. `inTheMiddle` when there were some, and then
  // until each machine had one that was recorded and that began after that.
  void wave(const std::function<void()>& inTheMiddle) {
    std::mutex mutex;
    std::deque<Machine*> waiting;
    int recorded = 0;
    bool isMiddleOver = false;
    for (Machine& machine : machines_) waiting.push_back(&machine);
    const auto deadline = std::chrono::steady_clock::now() + kLongestWave;
    const auto work = [&] {
      for (std::unique_lock lock(mutex); !waiting.empty() && std::chrono::steady_clock::now() < deadline;) {
        Machine& machine = *waiting.front();
        waiting.pop_front();
        const bool isLate = isMiddleOver;
        lock.unlock();
        const bool isRecorded = pass(machine);
        if (!isRecorded) std::this_thread::sleep_for(kPause);
        lock.lock();
        if (isRecorded) ++recorded;
        if (!isRecorded || !isLate) waiting.push_back(&machine);
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kAtOnce; ++i) threads.emplace_back(work);
    EXPECT_TRUE(becomesTrue([&] {
      const std::lock_guard lock(mutex);
      return recorded >= kMachines / 2;
    }));
    inTheMiddle();
    {
      const std::lock_guard lock(mutex);
      isMiddleOver = true;
    }
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(waiting.empty()) << waiting.size() << " machines are cut off, " << waiting.front()->name
                                 << " is one";
  }

  // --- changes ---

  // Makes changes, one after the other, from the servers that there are in turn.
  void beginChanging() {
    changing_ = std::thread([this] {
      for (int number = 0; !isEnough_; ++number) {
        const std::string targets[] = {"@all", "@even", "@odd", "pc" + std::to_string(number % kMachines)};
        Change change{targets[number % 4], "nCHANGE" + std::to_string(number)};
        const int server = isFirstServerLost_ ? 1 : number / 4 % 2;
        const auto done = runProgram(command(server, {"set", change.target, kPath, change.name,
                                                      std::to_string(number), "--why", change.name}));
        change.isDone = done.exitCode == 0;
        changes_.push_back(change);
        done_ += change.isDone ? 1 : 0;
      }
    });
  }
  // Waits until some more were made.
  void awaitChanges() {
    const int before = done_;
    EXPECT_TRUE(becomesTrue([&] { return done_ >= before + 4; }));
  }
  void stopChanging() {
    isEnough_ = true;
    if (changing_.joinable()) changing_.join();
  }

  // The primary sends the standby no more, until all passes and the change wait for that, and dies. What it
  // has of them nobody was told of, and the standby does not have it.
  static void loseDatabase(PostgresServer& primary, PostgresServer& standby) {
    kill(std::stoi(primary.query("SELECT pid FROM pg_stat_replication")), SIGSTOP);
    const auto waiting = [&primary] {
      return std::stoi(primary.query("SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'"));
    };
    EXPECT_TRUE(becomesTrue([&] { return waiting() == kAtOnce + 1; })) << "answered without the standby";
    primary.kill();
    standby.promote();
  }

  // --- what has come of it ---

  // Rows of a name and a number.
  static std::map<std::string, int> numbersOf(const std::string& rows) {
    std::map<std::string, int> numbers;
    std::istringstream lines(rows);
    std::string name;
    int number = 0;
    while (std::getline(lines, name, '|') && lines >> number >> std::ws) numbers[name] = number;
    return numbers;
  }
  static int numberOf(const std::map<std::string, int>& numbers, const std::string& name) {
    const auto found = numbers.find(name);
    return found == numbers.end() ? 0 : found->second;
  }
  // That the registry holds what the server says, and that this has every change that concerns the machine.
  void checkRegistry(const Machine& machine, const OBGui::KeyList& batch) const {
    lqregistry::UseFile(machine.registry);
    std::map<std::string, std::string> said;
    for (const OBGui::RegistryKeyInfo& key : batch) {
      said[key.valueName] = key.value;
      EXPECT_EQ(test_support::valueOf(key.keyPath, key.valueName), key.value.get()) << machine.name;
    }
    const bool isEven = (std::stoi(machine.name.substr(2)) % 2) == 0;
    for (const Change& change : changes_) {
      if (!change.isDone) continue;
      const bool concerns = change.target == "@all" || change.target == machine.name ||
                            change.target == (isEven ? "@even" : "@odd");
      EXPECT_EQ(said.contains(change.name), concerns) << machine.name << " " << change.name;
    }
  }

  void checkRegistries() {
    Store store({dataOf(1), store_});
    EXPECT_STREQ(store.open().AsString(), "");
    std::map<std::string, OBGui::KeyList> batches;
    const CWmError error = store.database().read([&](soci::session& session) {
      CWmError fault;
      for (const Client& client : allClients(session)) {
        MachineState state;
        if (!fault.IsError())
          fault = machineState(session, client.id, client.name, store.database().now(session), state);
        batches[client.name] = ::batchOf(state.settings, state.held, 0);
      }
      return fault;
    });
    EXPECT_STREQ(error.AsString(), "");
    for (const Machine& machine : machines_) checkRegistry(machine, batches.at(machine.name));
  }

  std::string store_;
  std::vector<std::string> onMachine_;
  std::vector<Machine> machines_;

  std::thread changing_;
  std::atomic<bool> isEnough_ = false;
  std::atomic<bool> isFirstServerLost_ = false;
  std::atomic<int> done_ = 0;
  std::vector<Change> changes_;  // of that thread, while it runs
};

// Nobody touches a machine: each comes again until its pass is recorded, as the resident host does.
TEST_F(FailoverTest, AFleetGoesOnWithoutALossWhenItsDatabaseAndAServerDie) {
  PostgresServer primary;
  PostgresServer standby(primary);
  const std::string database = primary.newDatabase();
  store_ = primary.uriWith(standby, database);
  enrol();
  auto first = serve(0);
  const auto second = serve(1);
  beginChanging();

  wave([&] {
    loseDatabase(primary, standby);
    awaitChanges();
  });
  wave([&] {
    isFirstServerLost_ = true;
    first.reset();  // kill -9
    awaitChanges();
    stopChanging();
  });
  outOf(runProgram(command(1, {"status"})));

  const auto recorded = numbersOf(standby.query(
      "SELECT name, COUNT(*) FROM acknowledgements JOIN clients ON client = id WHERE status = " +
          std::to_string(OBGui::kTaskSuccess) + " GROUP BY name",
      database));
  for (const Machine& machine : machines_) {
    EXPECT_GE(numberOf(recorded, machine.name), machine.acknowledged) << machine.name;
    EXPECT_LE(numberOf(recorded, machine.name), machine.passes) << machine.name;
  }
  const auto made = numbersOf(standby.query("SELECT why, COUNT(*) FROM revisions GROUP BY why", database));
  for (const Change& change : changes_) {
    const int times = numberOf(made, change.name);
    EXPECT_TRUE(times == 1 || (times == 0 && !change.isDone)) << change.name << ": " << times;
  }
  checkRegistries();
}

}  // namespace
