// A push in stages, as an administrator does it: with real hosts, of which one's module refuses what is set.
#include <nlohmann/json.hpp>

#include "tests/overhub/overhub_fixture.h"

namespace {

// A machine with its host service.
class Pc {
 public:
  Pc(const TempDir& dir, std::string name) : name_(std::move(name)), folder_(dir / name_) {
    std::filesystem::create_directory(folder_);
  }
  const std::string& name() const { return name_; }
  const std::string& address() const { return address_; }
  void join(const std::string& joinFile) const {
    outOf(runProgram(command({"join", joinFile, "--home", folder_ + "/home"})));
  }
  void run() {
    host_ = std::make_unique<BackgroundProgram>(
        command({"--log-file", "-", "run", "--listen", address_, "--spread", "0", "--module",
                 LQ_LIB_DIR "/lq_sample_module.so"}),
        folder_ + "/run.log");
    EXPECT_TRUE(host_->waitForOutput("lqhost ready")) << host_->output();
    EXPECT_TRUE(host_->waitForOutput("Task [RegistryDownload] ended with result 0")) << host_->output();
  }
  void stop() { host_.reset(); }
  std::string level() const {
    return runProgram({programPath("lqreg"), "--registry", folder_ + "/registry.db", "get",
                       "Machine/Settings", "nTraceLevel"},
                      {"VELMOR_VM=Instance001"})
        .out;
  }

 private:
  std::vector<std::string> command(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {programPath("lqhost"), "--registry", folder_ + "/registry.db"});
    return arguments;
  }

  std::string name_;
  std::string folder_;
  std::string address_ = uniqueLoopbackAddress();
  std::unique_ptr<BackgroundProgram> host_;
};

class StagedPush : public OverhubTest {
 protected:
  StagedPush() {
    for (const char* const name : {"m1", "m2", "m3", "m4"}) {
      const Pc& pc = pcs_.emplace_back(dir_, name);
      expectOk(
          {"add-client", pc.name(), "--server-host", address_, "--join-file", dir_ / pc.name() + ".join"});
      expectOk({"client-host", pc.name(), pc.address()});
      pc.join(dir_ / pc.name() + ".join");
    }
    set("@all", "1");
    server_ = serve();
    for (Pc& pc : pcs_) pc.run();
  }
  void set(const std::string& target, const std::string& level) const {
    expectOk({"set", target, "Machine/Settings", "nTraceLevel", level});
  }
  // The trace levels of all machines.
  std::string levels() const {
    std::string all;
    for (const Pc& pc : pcs_) all += pc.level();
    return all;
  }
  // What a push in JSON says of each machine.
  static std::string results(const ProgramResult& push) {
    std::string all;
    const auto json = nlohmann::json::parse(push.out, nullptr, false);
    if (json.is_discarded()) return push.out + push.err;
    for (const auto& machine : json["machines"])
      all += machine["machine"].get<std::string>() + std::to_string(machine["stage"].get<int>()) + " " +
             machine["result"].get<std::string>() + "\n";
    return all;
  }

  std::vector<Pc> pcs_;
  std::unique_ptr<BackgroundProgram> server_;
};

// The canary takes it, a machine of the next stage does not: its neighbour goes back with it, the last never
// gets it; mended, the same push goes on to the end.
TEST_F(StagedPush, StopsWhereItFailsGoesBackAndGoesOn) {
  set("@all", "5");
  set("m2", "99");
  const ProgramResult stopped =
      overhub({"push", "@all", "--stages", "1,3,100%", "--confirm", "1h", "--json", "--parallel", "2"});
  EXPECT_EQ(stopped.exitCode, 1);
  EXPECT_EQ(results(stopped), "m11 inEffect\nm22 failed\nm32 back\nm43 held\n") << stopped.out;
  EXPECT_TRUE(contains(stopped.out, "trace levels are 0 to 10, not 99")) << stopped.out;
  EXPECT_EQ(levels(), "5\n1\n1\n1\n");
  expectOut(overhub({"why", "m4"}), 6, {"held back by push 1", "overhub push --resume 1"});
  expectOut(overhub({"why", "m3"}), 6, {"the server took it back, since it failed on other machines"});

  expectErr(overhub({"push", "m4", "--stages", "100%"}), 1, {"m4 is in push 1"});
  expectErr(overhub({"push", "--resume", "2"}), 1, {"there is no push 2"});
  set("m2", "6");
  const ProgramResult resumed = overhub({"push", "--resume"});
  expectOut(resumed, 0, {"stage 3 of 3: 1 in effect", "push 1: done; 4 in effect"});
  EXPECT_EQ(levels(), "5\n6\n5\n5\n");
  expectErr(overhub({"push", "--resume"}), 1, {"no push in stages is left"});
}

// A machine that cannot be called and does not come is given up after a while; those that came meanwhile were
// not kept waiting, and an end lets the others have it.
TEST_F(StagedPush, GivesUpMachinesThatDoNotCome) {
  pcs_[1].stop();
  set("@all", "5");
  const ProgramResult stopped = overhub({"push", "@all", "--stages", "3,100%", "--wait", "5"});
  expectOut(stopped, 1,
            {"stage 1 of 2: 2 in effect, 1 failed",
             "m2           1  failed    not in effect within 5 s: has not fetched",
             "push 1: stopped in stage 1 of 2; 2 in effect, 1 failed, 1 held back"});
  EXPECT_TRUE(contains(stopped.out, "see that \"lqhost run\" runs there")) << "why it could not be called";
  EXPECT_EQ(levels(), "5\n1\n5\n1\n");
  expectOk({"push", "--end", "1"});
  expectOut(overhub({"push", "m1,m3,m4", "--stages", "100%", "--stop-at-failures", "2"}), 0, {"3 in effect"});
  EXPECT_EQ(levels(), "5\n1\n5\n5\n");
}

// Nothing is begun by a command line that does not say clearly what is wanted.
TEST_F(OverhubTest, APushInStagesIsAskedForClearly) {
  expectOk({"add-client", "m1"});
  const std::vector<std::string> lines[] = {{"push"},
                                            {"push", "m1", "--wait", "5"},
                                            {"push", "m1", "--json"},
                                            {"push", "m1", "--confirm", "5m"},
                                            {"push", "m1", "--stages", "10%"},
                                            {"push", "m1", "--stages", "100%", "--confirm", "1"},
                                            {"push", "m1", "--stages", "100%", "--why", "x"},
                                            {"push", "m1", "file.xml", "--stages", "100%"},
                                            {"push", "m1", "--resume"},
                                            {"push", "--resume", "1", "--end", "1"},
                                            {"push", "--end", "1", "--stages", "100%"}};
  for (const auto& line : lines) EXPECT_EQ(overhub(line).exitCode, 2) << testing::PrintToString(line);
  expectErr(overhub({"push", "--end", "1"}), 1, {"there is no push 1 in stages"});
}

}  // namespace
