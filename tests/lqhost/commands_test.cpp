// The host's commands that run once: joining and what keeps from it, and one pass with its report, judged by
// the exit codes that scripts go by.

#include "lqhost/pass/left_out.h"
#include "tests/lqhost/host_fixture.h"

namespace {

using HostCommands = HostTest;

TEST_F(HostCommands, JoiningWritesEverythingAClientNeedsOrNothing) {
  addClient();
  const std::string good = readFile(joinFile_);
  const std::string bad = dir_ / "bad.join";
  const auto damaged = [&](const std::string& part, const std::string& by) {
    std::string text = good;
    text.replace(text.find(part), part.size(), by);
    return text;
  };
  const auto expectRefused = [&](const std::vector<std::string>& more, int exitCode,
                                 const std::string& reason) {
    std::vector<std::string> arguments{"join", more.empty() ? bad : joinFile_, "--home", home_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto result = lqhost(arguments);
    expectErr(result, exitCode, {reason});
    EXPECT_FALSE(contains(result.err, keyOf("web-1"))) << "the key is nobody's business";
    EXPECT_EQ(valueOf("Overhub", "sOHHOSTNAME"), "(none)");
  };
  const std::pair<std::string, const char*> files[] = {
      {"", "lacks \"server-host\""},
      {good.substr(0, good.size() / 2), "bad.join"},
      {damaged("client-id=42", "client-id=0"), "client-id is not a positive number: 0"},
      {damaged("client-id=42", "client-id=\"4\x1b]2\""), "not a positive number: 4\\x1b]2"},
      {damaged("client-id=42", "client-id=9223372036854775808"), "client-id is not"},
      {damaged(keyOf("web-1"), keyOf("web-1").substr(1)), "session-key is not a key of 64"},
      {damaged("\"web-1\"", "\"web/1\""), "cannot hold a \"/\": web/1"}};
  for (const auto& [text, reason] : files) {
    writeFile(bad, text);
    expectRefused({}, contains(reason, "cannot hold") ? 3 : 2, reason);
  }
  expectRefused({"--machine", "a/b"}, 3, "cannot hold a \"/\": a/b");
  writeFile(dir_ / "file", "");
  expectRefused({"--base", dir_ / "file"}, 3, dir_ / "file");
  expectRefused({"--base", "/tmp"}, 3, "chmod go-w /tmp");
  expectErr(runProgram({programPath("lqhost"), "--registry", data_, "join", joinFile_, "--home", home_}), 3,
            {data_, "it is not a file"});

  // Paths count from where the command was given, not from where a service runs.
  std::filesystem::current_path(dir_.path());
  expectOut(lqhost({"join", joinFile_, "--home", "./h", "--base", "h/../b", "--host", "host1"}), 0,
            {"Instance001 joined overhub at " + address_ + " as client web-1, id 42"});
  EXPECT_EQ(valueOf("Hosts/host1", "sCLIENTNAME"), "web-1");
  EXPECT_EQ(valueOf("Machine", "sPHYSICALNAME") + "\n", readFile("/proc/sys/kernel/hostname"));
  EXPECT_EQ(valueOf("SOFTWARE/Velmor/Clients/web-1", "nCLIENTID"), "42");
  EXPECT_EQ(valueOf("Base", "dBASEHOME"), dir_ / "b");
  EXPECT_EQ(valueOf("EventManager", "dOBLOGDIR"), dir_ / "h/Log_Files");
  EXPECT_EQ(lqhost({"join", joinFile_, "--home", home_}).exitCode, 0);
  EXPECT_EQ(modeOf(home_ + "/Log_Files"), 0700U);

  // Another client's settings, or another server's, are not reapplied to this one.
  const std::string cache = base_ + "/AdditionalSettingsCache.xml";
  for (std::string before = good;
       const std::string& text :
       {good, damaged("client-id=42", "client-id=43"), good, damaged("\"web-1\"", "\"web-2\""), good,
        damaged(address_, "hub.example"), good, damaged("\"overhub\"", "\"hub-2\"")}) {
    writeFile(bad, text);
    writeFile(cache, "cached");
    const auto joined = lqhost({"join", bad, "--home", text == good ? home_ : dir_ / "elsewhere"});
    EXPECT_EQ(std::filesystem::exists(cache), text == before) << text;
    EXPECT_EQ(contains(joined.out, " is dropped\n"), text != before) << joined.out << joined.err;
    before = text;
  }
  std::filesystem::create_directory(cache);
  expectErr(lqhost({"join", joinFile_, "--home", home_}), 3, {cache + " cannot be removed"});
  EXPECT_EQ(valueOf("Overhub", "sOHCLIENTNAME"), "hub-2");
}

TEST_F(HostCommands, AMachineThatHasNotJoinedIsToldHowTo) {
  for (const char* command : {"sync", "refresh", "upload", "status", "run", "monitor", "alerts"})
    expectErr(lqhost({command}), 3, {"lqhost join FILE"});
  EXPECT_EQ(host::leftOutOf({}).lines, "  ~: its values cannot be read\n  ~: its keys cannot be read\n");
  writeFile(clientRegistry_, std::string(5000, '#'));
  expectErr(lqhost({"sync"}), 3, {"not a database (file \"" + clientRegistry_ + "\", key \"Overhub\""});
  EXPECT_EQ(readFile(clientRegistry_), std::string(5000, '#'));
}

TEST_F(HostCommands, APassTellsByItsExitCodeWhatBecameOfIt) {
  join();
  expectErr(lqhost({"sync"}), 1,
            {"the registry is as it was", "Failed to connect to the remote machine " + address_});
  expectErr(lqhost({"refresh"}), 1, {"nothing to reapply"});
  EXPECT_TRUE(contains(readFile(home_ + "/Log_Files/lqhost-command.log"), "Failed to connect"));
  EXPECT_FALSE(contains(lqhost({"sync"}).err, " E [")) << "the log is not shown as well";
  EXPECT_FALSE(std::filesystem::exists(home_ + "/Log_Files/lqhost.log")) << "is the resident host's";

  expectOk({"set", "web-1", "Limits", "nMAX", "10"});
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  const auto server = serve();
  const std::vector<std::string> sync{"--instance", "Instance001", "sync", "--watch", "Limits", "nMAX"};
  const auto synced = runProgram(onClient(sync), {"VELMOR_VM=I2"});
  expectOut(synced, 0, {"2 added", "callback ran: Limits nMAX", "acknowledged: taskStatus 3 (applied)"});
  EXPECT_TRUE(synced.err.empty() && !contains(synced.out, "sesame")) << synced.out << synced.err;

  // The cache keeps what could not be applied, so that a refresh tries, and reports, it too.
  expectOk({"set", "web-1", "Clients", "Other", "--type", "KEY", "--force"});
  const auto partly = lqhost({"sync"});
  expectOut(partly, 4, {"acknowledged: taskStatus 1 (failed)", "keys may not be created remotely"});
  expectErr(partly, 4, {"applied. The client says:\n", "  Modifying Other remotely is not allowed\n"});
  setValue("Limits", "nMAX", "99");
  expectOut(lqhost({"refresh"}), 4, {"1 changed"});

  // One line each for what is too long to be uploaded, as far as a person wants to read.
  for (int i = 0; i < 22; ++i)
    setValue("Long", "s" + std::to_string(i), std::string(i == 0 ? 10239 : 10240, 'x'));
  setValue("~", "sROOT", "x");
  lqregistry::UseFile(clientRegistry_);
  ASSERT_TRUE(LQPlatformInfo("Instance001").setRegValue("Long", "bytes", 0, "a\0b", 3));
  const auto uploaded = lqhost({"upload"});
  expectOut(uploaded, 4, {"uploaded and kept"});
  expectErr(uploaded, 4,
            {"23 were left out", "~ sROOT: values of the root itself are not uploaded",
             "~Long bytes: uploaded only up to", "~Long s1: 10240 bytes", "and 3 more"});
  EXPECT_FALSE(contains(uploaded.err, "~Long s0:"));
  EXPECT_TRUE(contains(host::leftOutOf({}).lines, "  ~Overhub: the key could not be read, or is new\n"));

  // The checks say why there is nothing to do.
  expectOut(lqhost({"monitor"}), 0, {"Spoolhand is installed 0\ndone, or nothing to do on this machine\n"});
  expectOut(lqhost({"alerts"}), 1, {"Index Server is not installed\nfailed\n"});

  setValue("EventManager", "bEnableRegistrySync", "0");
  expectOut(lqhost({"sync", "--fresh"}), 5, {"skipped"});
  expectOut(lqhost({"status"}), 6, {"sync          switched off", ": skipped: switched off"});
  std::filesystem::rename(home_ + "/Log_Files", home_ + "/moved");
  writeFile(home_ + "/Log_Files", "");
  expectErr(lqhost({"status"}), 6, {"lqhost-command.log: Not a directory; --log-file names another place"});
}

}  // namespace
