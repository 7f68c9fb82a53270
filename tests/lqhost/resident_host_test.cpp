// The resident host with the real server at the other end: its passes, what the server asks of it, faults on
// both sides, and how it stops.
#include <regex>
#include <semaphore>

#include "lqhost/commands/before_work.h"
#include "tests/lqhost/host_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kPassDone = "Task [RegistryDownload] ended with result 0";
const std::string kPassFailed = "Task [RegistryDownload] ended with result -1";
const std::string kModule = LQ_LIB_DIR "/lq_sample_module.so";

class ResidentHost : public HostTest {
 protected:
  ResidentHost() { join(); }
  ProgramResult ask(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--host", listen_});
    return overhub(arguments);
  }
};

TEST_F(ResidentHost, PassesPushesFetchesAndCallsReachTheClient) {
  expectOk({"set", "web-1", "Machine/Settings", "nTraceLevel", "5"});
  const auto server = serve();
  const auto host = runHost({"--module", kModule});
  ASSERT_TRUE(host->waitForOutput(kPassDone)) << host->output();
  EXPECT_EQ(valueOf("Machine/Settings", "nTraceLevel"), "5");
  EXPECT_TRUE(host->waitForOutput("nTraceLevel is [5] now")) << "the module's callback";
  expectOut(overhub({"acks", "web-1"}), 0, {"web-1   42       3  applied\n"});

  expectErr(lqhost({"run", "--listen", uniqueLoopbackAddress()}), 1,
            {"instance Instance001 has a resident host already"});

  const auto push = [&](const OBGui::RegistryKeyInfo& key) {
    writeFile(dir_ / "batch.xml", batchText({key}));
    return ask({"push", "web-1", dir_ / "batch.xml"});
  };
  expectOut(push(record("Pushed", "sVALUE", "at once")), 0, {"applied\n"});
  EXPECT_EQ(valueOf("Pushed", "sVALUE"), "at once");
  // A key that may not be created remotely; of a file, such as an upload, no key is taken.
  expectOut(push(record("Clients", "Other", "", "KEY")), 0, {"nothing to change", "applied\n"});
  expectOk({"set", "web-1", "Clients", "Other", "--type", "KEY", "--force"});
  EXPECT_EQ(ask({"push", "web-1"}).out, "failed\n");

  const auto fetched = ask({"fetch", "web-1", "~/Pushed", "sNONE", "sVALUE"});
  expectOut(fetched, 1, {"sNONE   not there, or 1,024 bytes or more\nsVALUE  at once"});
  EXPECT_TRUE(contains(fetched.err, "lqhost upload")) << fetched.err;
  expectOut(ask({"call", "web-1", "7", "world"}), 0, {"hello, world\n"});
  expectErr(ask({"call", "web-1", "8", "world"}), 1, {"Callback function not implemented"});

  expectOut(lqhost({"upload"}), 0, {"records uploaded and kept by the server"});
  EXPECT_TRUE(contains(host->output(), "Received Success Response")) << "sent by the resident host";
  EXPECT_TRUE(contains(overhub({"uploads", "web-1"}).out, "at once"));
  for (const int signal : {SIGPIPE, SIGINT}) kill(host->process(), signal);  // of which one stops it
  EXPECT_EQ(host->stop(), 0);
  EXPECT_FALSE(contains(host->output(), "outlasts the stop"));
  EXPECT_TRUE(contains(lqhost({"status"}).out, "no resident host is running"));
}

TEST_F(ResidentHost, WhatModulesSayOfAValueReachesTheServer) {
  const auto set = [this](const std::string& level) {
    expectOk({"set", "web-1", "Machine/Settings", "nTraceLevel", level});
  };
  const auto becomes = [this](const std::string& state, const std::string& why) {
    return becomesTrue([&] {
      const ProgramResult told = overhub({"why", "web-1"});
      return contains(told.out, "web-1: " + state) && contains(told.out, why) &&
             told.exitCode == (state == "refused" ? 6 : 0);
    });
  };
  set("11");
  const auto server = serve();
  const auto host = runHost({"--module", kModule, "--sync-every", "3600"});
  EXPECT_TRUE(becomes("refused", "trace levels are 0 to 10, not 11")) << overhub({"why", "web-1"}).out;
  set("5");
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  EXPECT_TRUE(becomes("current", "")) << overhub({"why", "web-1"}).out;
  set("12");
  expectOut(ask({"push", "web-1"}), 0, {"applied"});
  EXPECT_TRUE(becomes("refused", "not 12")) << overhub({"why", "web-1"}).out;
  EXPECT_EQ(host->stop(), 0);
}

// A change that asks to be confirmed stays where it works, and is gone by itself where a module refuses it.
TEST_F(ResidentHost, KeepsWhatIsConfirmedAndGoesBackFromWhatIsRefused) {
  const auto set = [this](const std::string& level, const std::vector<std::string>& confirm) {
    std::vector<std::string> line{"set", "web-1", "Machine/Settings", "nTraceLevel", level};
    line.insert(line.end(), confirm.begin(), confirm.end());
    return overhub(line);
  };
  const auto becomes = [this](const std::string& text) {
    return becomesTrue([&] { return contains(overhub({"why", "web-1"}).out, text); });
  };
  expectErr(set("5", {"--confirm", "5"}), 2, {"--confirm takes 10 seconds to 30 days", "not \"5\""});
  expectOut(set("5", {}), 0, {"revision "});
  const auto server = serve();
  const auto host = runHost({"--module", kModule, "--sync-every", "3600"});
  ASSERT_TRUE(host->waitForOutput("nTraceLevel is [5] now")) << host->output();
  expectOut(set("7", {"--confirm", "1h"}), 0, {"revision "});
  EXPECT_TRUE(becomes("has to be confirmed within 3600 s, and is not yet"));
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  EXPECT_TRUE(becomesTrue([&] { return contains(lqhost({"history"}).out, "confirmed"); }))
      << lqhost({"history"}).out;
  EXPECT_FALSE(contains(overhub({"why", "web-1"}).out, "has to be confirmed"));
  expectOut(overhub({"log", "web-1"}), 0, {"nTraceLevel --confirm 1h"});

  expectOut(set("11", {"--confirm"}), 0, {"revision "});
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  EXPECT_TRUE(host->waitForOutput("Went back from a batch: sample module refused")) << host->output();
  EXPECT_EQ(valueOf("Machine/Settings", "nTraceLevel"), "7");
  EXPECT_TRUE(becomes("web-1: back")) << overhub({"why", "web-1"}).out;
  EXPECT_EQ(lqhost({"sync"}).exitCode, 11);
  expectOut(overhub({"confirm", "web-1"}), 0, {"1 machine may apply again what they went back from"});
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  EXPECT_TRUE(becomesTrue([&] {
    return countOf(*host, "Went back from a batch: sample module refused") == 2;
  })) << host->output();
  EXPECT_EQ(host->stop(), 0);
}

// All that the machine knows of a value, with and without a resident host; nothing of a secret.
TEST_F(ResidentHost, ExplainsAValue) {
  const auto explain = [this](const std::string& path, const std::string& name) {
    return lqhost({"explain", path, name});
  };
  const auto says = [&](const std::string& text) {
    return becomesTrue([&] { return contains(explain("Machine/Settings", "nTraceLevel").out, text); });
  };
  expectOut(explain("Machine/Settings", "nTraceLevel"), 1,
            {"wanted        not known", "set by        not known", "no resident host is running"});
  expectOk({"set", "@all", "Machine/Settings", "nTraceLevel", "5", "--why", "ticket \x1b[31m"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "10", "--until", "+1d"});
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  const auto server = serve();
  auto host = runHost({"--module", kModule, "--sync-every", "3600"});
  ASSERT_TRUE(says("sample module: inEffect")) << host->output();
  ASSERT_TRUE(says("set by        revision ")) << host->output();
  const ProgramResult told = explain("Machine/Settings", "nTraceLevel");
  expectOut(told, 0,
            {"value         \"5\"\n", "wanted        \"5\"\n", " for @all, 20", ": ticket \\x1b[31m\n",
             "drift         none", "callbacks     a change callback, a verdict of sample module\n"});
  EXPECT_FALSE(contains(told.out, "changes  ")) << "nothing waits to be confirmed";
  expectOut(explain("~/Limits", "nMAX"), 0,
            {"value         \"10\"\n", "wanted        \"10\"; ends 20", "no module has said",
             "none is registered"});
  const ProgramResult secret = explain("~/Proxy", "sPW");
  expectOut(secret, 0, {"value         \"********\"\nwanted        \"********\"\n", " for web-1, "});
  EXPECT_FALSE(contains(secret.out, "sesame") || contains(secret.out, "V8:"));
  expectOut(explain("Overhub", "sSESSIONKEY"), 0,
            {"value         \"********\"", "the server sets nothing here", "nobody on the server"});

  setValue("Machine/Settings", "nTraceLevel", "7");
  expectOut(explain("Machine/Settings", "nTraceLevel"), 6,
            {"value         \"7\"\nwanted        \"5\"; the next refresh"});
  expectOk({"set", "@all", "Machine/Settings", "nTraceLevel", "6", "--confirm", "1h"});
  EXPECT_EQ(host->stop(), 0);
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  expectOut(explain("Machine/Settings", "nTraceLevel"), 0, {"set by        revision 5 for @all, "});
  EXPECT_EQ(server->stop(), 0);
  setValue("Machine/Settings", "nTraceLevel", "8");
  EXPECT_EQ(lqhost({"refresh"}).exitCode, 0);
  expectOut(explain("Machine/Settings", "nTraceLevel"), 0,
            {"drift         found \"8\" and corrected to \"6\" ", "no resident host is running"});
}

// With its server's address taken from it, and by hand; its modules hear of both.
TEST_F(ResidentHost, GoesBackAndTellsItsModules) {
  const auto setBoth = [this](const std::string& address, const std::string& level) {
    expectOk({"set", "web-1", "Overhub", "sOHHOSTNAME", address, "--force"});
    expectOk({"set", "web-1", "Machine/Settings", "nTraceLevel", level});
  };
  setBoth(address_, "5");
  const auto server = serve();
  const auto host = runHost({"--module", kModule, "--sync-every", "3600", "--way-back-limit", "5"});
  ASSERT_TRUE(host->waitForOutput("nTraceLevel is [5] now")) << host->output();
  setBoth(uniqueLoopbackAddress(), "7");
  expectOut(lqhost({"sync"}), 9, {"2 changed"});
  ASSERT_TRUE(host->waitForOutput("Went back from a batch: the server was not reached")) << host->output();
  EXPECT_TRUE(becomesTrue([&] { return countOf(*host, "nTraceLevel is [5] now") == 2; })) << host->output();
  EXPECT_TRUE(host->waitForOutput("The batch was not applied: ")) << "the server is reached again";
  EXPECT_EQ(valueOf("Overhub", "sOHHOSTNAME"), address_);

  setBoth(address_, "8");
  expectOut(lqhost({"sync"}), 0, {"1 changed"});
  expectOut(lqhost({"rollback"}), 0,
            {"restored  SOFTWARE/Velmor/Instance001/Machine/Settings  nTraceLevel\n"});
  EXPECT_TRUE(becomesTrue([&] { return countOf(*host, "nTraceLevel is [5] now") == 3; })) << host->output();
  EXPECT_EQ(valueOf("Machine/Settings", "nTraceLevel"), "5");
  writeFile(dir_ / "batch.xml", batchText({record("Machine/Settings", "nTraceLevel", "8")}));
  expectErr(ask({"push", "web-1", dir_ / "batch.xml"}), 1, {"went back"});
}

// What keeps a host from beginning at all is gone back from by whoever tries to, once the time is over.
TEST_F(ResidentHost, GoesBackFromWhatKeepsItFromBeginning) {
  const auto server = serve();
  const std::vector<std::string> places[] = {{"Overhub", "sOHHOSTNAME", "--delete"},
                                             {"Base", "dBASEHOME", dir_ / "nowhere/x"},
                                             {"Base", "dBASEHOME", ""}};
  for (const std::vector<std::string>& place : places) {
    const std::string before = valueOf(place[0], place[1]);
    expectOk({"set", "web-1", place[0], place[1], place[2], "--force"});
    lqhost({"sync", "--way-back-limit", "5"});
    ASSERT_NE(valueOf(place[0], place[1]), before);
    EXPECT_TRUE(becomesTrue([this] {
      const BackgroundProgram host(onClient({"run", "--listen", listen_}), dir_ / "again.log");
      return host.waitForOutput("lqhost ready");
    })) << lqhost({"status"}).err;
    EXPECT_EQ(valueOf(place[0], place[1]), before);
    expectOk({"set", "web-1", place[0], place[1], before, "--force"});
  }
  expectOk({"set", "web-1", "Overhub", "sOHHOSTNAME", "--delete", "--force"});
  lqhost({"sync"});
  expectErr(lqhost({"sync"}), 1,
            {"the server's host is not set: ", " wait: the way to the server was changed"});
  expectOut(lqhost({"rollback"}), 0, {"restored  "});
  EXPECT_EQ(valueOf("Overhub", "sOHHOSTNAME"), address_);
}

// Modules and callbacks live in the resident host, so what a person asks for is done there.
TEST_F(ResidentHost, CommandsAreCarriedOutByTheResidentHost) {
  expectOk({"set", "web-1", "Machine/Settings", "nTraceLevel", "5"});
  const auto server = serve();
  auto host = runHost({"--module", kModule, "--sync-every", "3600"});
  ASSERT_TRUE(host->waitForOutput("nTraceLevel is [5] now")) << host->output();
  EXPECT_EQ(modeOf(base_ + "/lqhost.sock"), 0600U);
  EXPECT_GT(base_.size(), 108U) << "longer than a socket's path may be";

  expectOk({"set", "web-1", "Machine/Settings", "nTraceLevel", "6"});
  expectOut(lqhost({"sync"}), 0, {"1 changed", "(applied)"});
  EXPECT_TRUE(host->waitForOutput("nTraceLevel is [6] now")) << "the module's callback";
  const int refreshes = countOf(*host, "Task [AdditionalSettingsRefresh] ended");
  EXPECT_EQ(lqhost({"refresh"}).exitCode, 0);
  EXPECT_EQ(countOf(*host, "Task [AdditionalSettingsRefresh] ended"), refreshes + 1);
  writeFile(base_ + "/AdditionalSettingsCache.xml", batchText(OBGui::KeyList(2, record("A", "s", "1"))));
  EXPECT_EQ(lqhost({"sync", "--fresh"}).exitCode, 0);
  EXPECT_TRUE(contains(host->output(), "/AdditionalSettingsCache.xml is dropped")) << host->output();
  EXPECT_EQ(lqhost({"upload"}).exitCode, 0);
  EXPECT_TRUE(contains(host->output(), "Received Success Response")) << host->output();
  expectOut(lqhost({"status"}), 0,
            {"  next        2", "callbacks     0 wait in the resident host", "registry      sound"});
  expectErr(lqhost({"sync", "--watch", "Machine/Settings", "nTraceLevel"}), 1,
            {"--watch is for machines without a resident host"});

  // A host that was killed leaves its socket; nobody waits for it, and the next one takes its place.
  host.reset();
  EXPECT_TRUE(std::filesystem::exists(base_ + "/lqhost.sock"));
  EXPECT_EQ(lqhost({"sync"}).exitCode, 0);
  host = runHost({"--sync-every", "3600"});
  EXPECT_EQ(lqhost({"sync"}).exitCode, 0);
  EXPECT_EQ(host->stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(base_ + "/lqhost.sock"));
}

// What was pushed is not in the cache until a pass has followed, and a refresh must not undo it.
TEST_F(ResidentHost, APushHolds) {
  expectOk({"set", "web-1", "Limits", "nMAX", "10"});
  auto server = serve();
  auto host = runHost({"--sync-every", "3600"});
  ASSERT_TRUE(host->waitForOutput(kPassDone)) << host->output();
  const int passes = countOf(*host, kPassDone);
  expectOk({"set", "web-1", "Limits", "nMAX", "11"});
  EXPECT_EQ(ask({"push", "web-1"}).out, "applied\n");
  EXPECT_TRUE(becomesTrue([&] { return countOf(*host, kPassDone) > passes; })) << "a pass follows at once";
  EXPECT_EQ(lqhost({"refresh"}).exitCode, 0);
  EXPECT_EQ(valueOf("Limits", "nMAX"), "11");
  EXPECT_EQ(countOf(*host, kPassDone), passes + 1) << "once";

  EXPECT_EQ(server->stop(), 0);
  expectOut(lqhost({"sync", "--fresh"}), 1, {"cache dropped"});
  EXPECT_TRUE(becomesTrue([&] { return countOf(*host, kPassFailed) > 1; })) << "another one follows at once";
  expectOk({"set", "web-1", "Limits", "nMAX", "12"});
  EXPECT_EQ(ask({"push", "web-1"}).out, "applied\n");
  EXPECT_TRUE(becomesTrue([&] { return countOf(*host, kPassFailed) > 2; }));
  expectErr(lqhost({"refresh"}), 1, {"the server pushed a batch"});
  EXPECT_EQ(valueOf("Limits", "nMAX"), "12");
  EXPECT_TRUE(contains(lqhost({"status"}).out, "unsettled     the server pushed a batch"));

  // Killed now, it begins with the pass that is owed, whatever the spread says.
  host.reset();
  server = serve();
  host = runHost({"--sync-every", "3600", "--spread", "3600"});
  EXPECT_TRUE(host->waitForOutput(kPassDone)) << host->output();
  EXPECT_EQ(host->stop(), 0);
  EXPECT_FALSE(contains(lqhost({"status"}).out, "unsettled"));
}

TEST_F(ResidentHost, AServerThatGoesAndComesBackIsFoundAgain) {
  expectOk({"set", "web-1", "Limits", "nMAX", "10"});
  expectOk({"set", "web-1", "Limits", "sGONE", "--delete"});
  auto server = serve();
  const auto host = runHost();
  ASSERT_TRUE(host->waitForOutput(kPassDone)) << host->output();
  ASSERT_TRUE(host->waitForOutput("Task [AdditionalSettingsRefresh] ended with result 0"));
  EXPECT_EQ(server->stop(), 0);
  EXPECT_EQ(lqhost({"sync"}).exitCode, 1);
  ASSERT_TRUE(host->waitForOutput(kPassFailed)) << host->output();

  // No pass repairs anything now, so drift stays until a refresh.
  setValue("Limits", "nMAX", "99");
  // A run is noted a moment after it is logged.
  EXPECT_TRUE(becomesTrue([&] { return contains(lqhost({"status"}).out, ": failed"); }));
  expectOut(lqhost({"status"}), 6, {R"(~Limits nMAX is "99", should be "10")", "1 of 1 values differ"});
  expectOut(lqhost({"refresh"}), 0,
            {"1 changed", "the cache holds 1 records now, 1 before; the next refresh is due in 3600 s"});
  EXPECT_TRUE(contains(host->output(), "is set to [60].")) << "the log's level is 2, as asked for";
  expectOut(
      lqhost({"status"}), 1,  // the last pass failed
      {"0 of 1 values differ", "sync          enabled", "instance      Instance001 in " + clientRegistry_,
       "joined to     overhub at " + address_ + " as client web-1, id 42",
       "cache         1 records, written 2"});
  expectErr(lqhost({"upload"}), 1, {"nothing was uploaded"});

  expectOk({"set", "web-1", "Limits", "nMAX", "11"});
  const int passes = countOf(*host, kPassDone);
  server = serve();
  ASSERT_TRUE(becomesTrue([&] { return countOf(*host, kPassDone) > passes; })) << host->output();
  EXPECT_EQ(valueOf("Limits", "nMAX"), "11");
  EXPECT_EQ(host->stop(), 0);
}

// Whoever lacks the client's key gets nowhere, and a server that asks for the wrong thing is told so.
TEST_F(ResidentHost, WhatItDoesNotServeIsDeclinedWithTheReason) {
  const auto host = runHost({"--module", kModule, "--sync-every", "3600", "--spread", "3600"});
  {
    CLqNetwork stranger;
    EXPECT_EQ(attachToHost(stranger, std::string(64, 'a')).GetCode(), kLqErrHandshake);
  }
  CLqNetwork session;
  const CWmError refused = attachToHost(session, keyOf("web-1"), "sLPOTHER");
  EXPECT_EQ(refused.GetCode(), kLqErrAttachRefused);
  EXPECT_TRUE(contains(refused.AsString(), "sLPOTHER")) << refused.AsString();
  ASSERT_FALSE(attachToHost(session, keyOf("web-1")).IsError());
  std::string refusal;
  for (int i = 0; i < 2; ++i) OverhubTest::ask(session, OBGui::RegistryStaticKeyReq(), refusal);
  EXPECT_TRUE(contains(refusal, "this client answers no OBGui.RegistryStaticKeyReq")) << refusal;
  leave(session);
  setValue("SOFTWARE/Velmor/Clients/web-1", "nCLIENTID", "0");
  expectErr(ask({"push", "web-1"}), 1, {"this client does not know its own id"});
  EXPECT_FALSE(contains(readFile(base_ + "/lqhost.unsettled"), "push")) << "nothing was applied";

  // A server that has attached and asks nothing holds up nobody.
  CLqNetwork silent;
  ASSERT_FALSE(attachToHost(silent, keyOf("web-1")).IsError());
  EXPECT_EQ(ask({"call", "web-1", "7", "world"}).out, "hello, world\n");
  // Nor does one that vanished, for long: within a minute, the kernel asks whether it is still there.
  const std::regex keptAlive(":20D4 \\S+ 01 \\S+ 02:0000[01]");  // the host's port, connected, its timer
  EXPECT_TRUE(becomesTrue([&] { return std::regex_search(readFile("/proc/net/tcp"), keptAlive); }));
  EXPECT_EQ(host->stop(), 0) << "with sessions open";
  EXPECT_FALSE(contains(host->output(), "no session with")) << "strangers do not fill the log";
}

TEST_F(ResidentHost, StopsWhileAPassWaitsForASilentServer) {
  std::binary_semaphore asked{0};
  const ScriptedPeer silent(address_, 8400, "web-1", keyOf("web-1"), [&](PeerSession& session) {
    if (!session.acceptAttach() || session.readFrame().kind != PeerSession::kMessage) return;
    asked.release();
    session.waitForClose();
  });
  const auto host = runHost();
  ASSERT_TRUE(asked.try_acquire_for(std::chrono::minutes(1))) << host->output();
  EXPECT_TRUE(contains(lqhost({"status"}).out, "callbacks     0 wait")) << "there is no module";
  lqregistry::UseFile(clientRegistry_);
  EXPECT_EQ(host::answerOfResident("nonsense").value_or(host::CommandResult()).exitCode, 2);
  EXPECT_EQ(host->stop(), 0);
  EXPECT_TRUE(contains(host->output(), kPassFailed)) << "the pass ended in order";
}

TEST_F(ResidentHost, DoesNotStartOnWhatItCannotUse) {
  const auto refuses = [&](const std::vector<std::string>& arguments, const std::string& reason) {
    std::vector<std::string> all{"run", "--listen", listen_};
    all.insert(all.end(), arguments.begin(), arguments.end());
    expectErr(lqhost(all), 1, {reason});
  };
  refuses({"--module", dir_ / "none.so"}, "none.so");
  refuses({"--module", LQ_LIB_DIR "/libLqPlatform.so"}, "LqHostModule_Register");
  refuses({"--module", "/dev/null"}, "others than its owner may write it");
  const ScriptedPeer other(listen_, programs::kHostServicePort, "", "", [](PeerSession&) {});
  refuses({}, "--listen and --port name another place");
  EXPECT_TRUE(std::filesystem::exists(home_ + "/Log_Files/lqhost.log"));

  // Consistent in every tree, and a path is elsewhere than its name.
  setValue("Odd/Leaf", "sVALUE", "x");
  std::string damaged = readFile(clientRegistry_);
  for (std::size_t at = 0; (at = damaged.find("Odd/Leaf", at)) != std::string::npos;) damaged[at + 7] = 'e';
  writeFile(clientRegistry_, damaged);
  expectErr(lqhost({"run", "--listen", listen_}), 3, {clientRegistry_});
  expectOut(lqhost({"status"}), 3, {"registry      damaged: "});
}

}  // namespace
