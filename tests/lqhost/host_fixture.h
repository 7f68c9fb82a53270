// What the host's tests share: a client machine beside the server of the server's tests, the host service as
// a person runs it, and this process in the server's place.
#pragma once

#include <algorithm>
#include <chrono>

#include "common/host_service.h"
#include "lqregistry/App.h"
#include "records/service_names.h"
#include "tests/overhub/overhub_fixture.h"
#include "tests/support/scripted_peer.h"

class HostTest : public OverhubTest {
 protected:
  HostTest() {
    App::RegisterSubsystem();
    LQPI_Focus::setFocus("Instance001");
  }

  // The command as it is run on the client's machine.
  std::vector<std::string> onClient(std::vector<std::string> arguments,
                                    const char* program = "lqhost") const {
    arguments.insert(arguments.begin(), {programPath(program), "--registry", clientRegistry_});
    return arguments;
  }
  ProgramResult lqhost(const std::vector<std::string>& arguments) const {
    return runProgram(onClient(arguments));
  }
  std::string valueOf(const std::string& key, const std::string& name) const {
    lqregistry::UseFile(clientRegistry_);
    const std::string value = test_support::valueOf(key, name).value_or("(none)");
    lqregistry::UseFile("/nowhere");  // its tests put other files in its place
    return value;
  }
  void setValue(const std::string& key, const std::string& name, const std::string& value) const {
    lqregistry::UseFile(clientRegistry_);
    test_support::setValue(key, name, value);
    lqregistry::UseFile("/nowhere");
  }

  // Makes the client known to the server, and the machine the client.
  void addClient() const {
    expectOk({"add-client", "web-1", "--id", "42", "--server-host", address_, "--join-file", joinFile_});
  }
  void join() const {
    addClient();
    const auto joined = lqhost({"join", joinFile_, "--home", home_, "--machine", "machine1"});
    EXPECT_EQ(joined.exitCode, 0) << joined.err;
  }

  // Its first runs come at once, and a pass every five seconds, unless `more` says otherwise.
  std::unique_ptr<BackgroundProgram> runHost(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments{"--log-level", "2", "--log-file", "-", "run", "--listen", listen_};
    const auto unlessGiven = [&](const char* option, const char* value) {
      if (std::find(more.begin(), more.end(), option) == more.end())
        arguments.insert(arguments.end(), {option, value});
    };
    unlessGiven("--spread", "0");
    unlessGiven("--sync-every", "5");
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto host = std::make_unique<BackgroundProgram>(onClient(arguments), dir_ / "run.log");
    EXPECT_TRUE(
        host->waitForOutput("lqhost ready: instance Instance001, serving the server on " + listen_ + ":8404"))
        << host->output();
    return host;
  }
  // Polls for up to a minute.
  template <class Condition>
  static bool becomesTrue(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
  static int countOf(const BackgroundProgram& program, const std::string& text) {
    const std::string output = program.output();
    int count = 0;
    for (std::size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) ++count;
    return count;
  }

  // A session of the server with the client's host service.
  CWmError attachToHost(CLqNetwork& network, const std::string& keyHex,
                        const char* entry = kHostEntryName) const {
    network.UseCredentials("web-1", keyHex);
    lqsExecuteRemoteDllType remote;
    remote.setNames(kHostLibraryName, entry);
    bool peerGone = false;
    return network.Attach_RemoteDLL(
        MangleHostName(listen_, "web-1", programs::kHostServicePort, programs::kHostServicePort), remote,
        "hub", kPatience, peerGone);
  }

  std::string home_ = dir_ / ("home-" + std::string(100, 'x'));
  std::string base_ = home_ + "/Base";
  std::string joinFile_ = dir_ / "web-1.join";
  std::string clientRegistry_ = dir_ / "client.db";
  std::string listen_ = uniqueLoopbackAddress();
};
