// Requests that the server makes of a client, with this process as the client's host service.
#include <functional>
#include <thread>

#include "programs/host_service.h"
#include "records/App.h"
#include "tests/overhub/overhub_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

// Answers one message of the server.
using Script = std::function<void(CLqNetwork& network, const CNMessageBase& request)>;

// A client's host service that plays `script` for each caller with the key, and waits for its goodbye.
class PlayedHost {
 public:
  PlayedHost(const std::string& address, std::uint16_t port, std::string keyHex, Script script)
      : listener_([key = std::move(keyHex)](const std::string& identity, std::string& bytes) {
          return identity == "web-1" && sessionKeyFromHex(key, bytes);
        }),
        script_(std::move(script)) {
    const CWmError error = listener_.open(address, port);
    EXPECT_FALSE(error.IsError()) << error.AsString();
    thread_ = std::thread([this] {
      while (auto network = listener_.accept()) play(*network);
    });
  }
  ~PlayedHost() {
    listener_.stop();
    thread_.join();
  }
  PlayedHost(const PlayedHost&) = delete;
  PlayedHost& operator=(const PlayedHost&) = delete;

 private:
  static constexpr int kPatience = 60;

  void play(CLqNetwork& network) {
    lqsExecuteRemoteDllType wanted;
    std::string caller;
    if (network.AcceptAttach(wanted, caller, kPatience).IsError()) return;
    EXPECT_EQ(wanted.libraryName, std::string(programs::kHostLibraryName));
    EXPECT_EQ(wanted.entryName, std::string(programs::kHostEntryName));
    EXPECT_FALSE(caller.empty());
    EXPECT_FALSE(network.ConfirmAttach().IsError());
    std::unique_ptr<CNMessageBase> request;
    bool peerGone = false;
    const CWmError error = network.ReceiveXMLMessage(nullptr, request, nullptr, 0, kPatience, peerGone);
    EXPECT_FALSE(error.IsError()) << error.AsString();
    if (request) script_(network, *request);
    network.ReplyDisconnect(kPatience, peerGone);
  }

  LqListener listener_;
  Script script_;
  std::thread thread_;
};

void reply(CLqNetwork& network, const CNMessageBase& message) {
  bool peerGone = false;
  network.SendXMLMessage(message, 0, -1, peerGone);
}

// Answers a push with this task status.
Script verdictOf(std::int64_t taskStatus) {
  return [taskStatus](CLqNetwork& network, const CNMessageBase&) {
    OBGui::RegistryTaskResp verdict;
    verdict.client.edit().clientId = 7;
    verdict.taskStatus = taskStatus;
    reply(network, verdict);
  };
}

class OverhubRequestTest : public OverhubTest {
 protected:
  OverhubRequestTest() {
    App::RegisterSubsystem();
    expectOk({"add-client", "web-1", "--id", "7"});
  }
  std::string key() const { return fileText("keys/web-1.key").substr(0, 2 * kSessionKeyBytes); }
  std::unique_ptr<PlayedHost> host(Script script, std::uint16_t port = programs::kHostServicePort) const {
    return std::make_unique<PlayedHost>(address_, port, key(), std::move(script));
  }
  // The command with the host's address behind it.
  test_support::ProgramResult atHost(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--host", address_});
    return overhub(arguments);
  }
};

// The client applies what is pushed: the batch on file with its secrets, or one from a file, under its own
// id.
TEST_F(OverhubRequestTest, PushSendsTheBatchAndRecordsTheVerdict) {
  expectOk({"set", "web-1", "~/Limits", "nMAX", "10"});
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  OBGui::RegistryTaskResp sent;
  const auto push = [&](std::int64_t verdict, const std::vector<std::string>& command) {
    const auto listening = host([&](CLqNetwork& network, const CNMessageBase& request) {
      const auto* const batch = messageAs<OBGui::RegistryTaskResp>(&request);
      if (batch != nullptr) sent = *batch;
      verdictOf(verdict)(network, request);
    });
    return atHost(command);
  };
  const auto applied = push(OBGui::kTaskSuccess, {"push", "web-1"});
  EXPECT_EQ(applied.exitCode, 0) << applied.err;
  EXPECT_EQ(applied.out, "applied\n");
  ASSERT_EQ(sent.keys->size(), 2U);
  EXPECT_EQ(sent.keys.get()[0].value.get(), "10");
  EXPECT_EQ(sent.keys.get()[1].encryptedValue->reveal(), "sesame");

  const std::string file = dir_ / "other.xml";
  test_support::writeFile(file,
                          "<OBGui.RegistryTaskResp taskStatus='2'><client clientId='99'/><keys>"
                          "<OBGui.RegistryKeyInfo valueName='n'/></keys></OBGui.RegistryTaskResp>");
  const auto failed = push(OBGui::kTaskFailed, {"push", "web-1", file});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_EQ(failed.out, "failed\n");
  EXPECT_TRUE(sent.keys->size() == 1U && sent.client->clientId == 7 &&
              sent.taskStatus == OBGui::kTaskSuccess);
  const std::string acks = overhub({"acks", "web-1"}).out;
  const std::size_t first = acks.find("id=7 taskStatus=3 (applied)");
  EXPECT_TRUE(first < acks.find("id=7 taskStatus=1 (failed)") && first != std::string::npos) << acks;

  test_support::writeFile(file, "<broken");
  for (const std::string& bad : {file, std::string(dir_ / "missing.xml")}) {
    const auto refused = atHost({"push", "web-1", bad});
    EXPECT_TRUE(refused.exitCode == 1 && contains(refused.err, bad)) << refused.err;
  }
}

// The client puts "~" in front of the path, and reads nothing for a record that lacks one of three fields.
TEST_F(OverhubRequestTest, FetchAsksForEachNameAndTellsWhatIsMissing) {
  const auto listening = host([](CLqNetwork& network, const CNMessageBase& request) {
    App::FetchClientRegistry answer = *messageAs<App::FetchClientRegistry>(&request);
    for (App::RegistryKeyInfo& key : answer.keyInfo.edit().keys.edit()) {
      EXPECT_TRUE(key.keyPath.isSet() && !key.value.isSet());
      EXPECT_EQ(key.valueType.get(), "STRING");
      if (key.valueName.get() != "absent") key.value = key.keyPath.get() + "\n" + key.valueName.get();
    }
    reply(network, answer);
  });
  const auto whole = atHost({"fetch", "web-1", "~/Limits", "b", "a"});
  EXPECT_EQ(whole.exitCode, 0) << whole.err;
  EXPECT_EQ(whole.out, "NAME  VALUE\nb     /Limits\\nb\na     /Limits\\na\n");
  const auto partly = atHost({"fetch", "web-1", "Limits", "absent", "a"});
  EXPECT_EQ(partly.exitCode, 1);
  EXPECT_EQ(partly.out, "NAME    VALUE\nabsent  not found\na       Limits\\na\n");
  EXPECT_EQ(atHost({"fetch", "web-1", "SOFTWARE/Velmor", "a"}).exitCode, 2);
}

// The payload belongs to whoever made it and whoever reads it: not a byte of it changes.
TEST_F(OverhubRequestTest, CallCarriesPayloadsAsTheyAre) {
  const auto listening = host([](CLqNetwork& network, const CNMessageBase& request) {
    const auto& message = *messageAs<App::AppCommunicationMessageReq>(&request);
    App::AppCommunicationMessageResp answer;
    answer.payload = std::to_string(message.messageType.get()) + "|" + message.payload.get();
    if (message.messageType == 404) {
      App::GenericResp fault;
      fault.errorCode = 1;
      fault.errorText = std::string("nobody does this");
      std::string text;
      fault.serialize(text, false);
      answer.payload = text;
    }
    reply(network, answer);
  });
  const auto echoed = atHost({"call", "web-1", "-9223372036854775808", "a\n\x1b\\<&> \xff"});
  EXPECT_EQ(echoed.exitCode, 0) << echoed.err;
  EXPECT_EQ(echoed.out, "-9223372036854775808|a\n\x1b\\<&> \xff\n");
  const auto piped = shell("printf 'x\\n' | \"$OVERHUB\" call web-1 7 - --host " + address_);
  EXPECT_EQ(piped.out, "7|x\n\n") << piped.err;
  const auto fault = atHost({"call", "web-1", "404", ""});
  EXPECT_EQ(fault.exitCode, 1);
  EXPECT_TRUE(fault.out.empty() && contains(fault.err, "nobody does this")) << fault.out << fault.err;
  EXPECT_EQ(atHost({"call", "web-1", "9223372036854775808", "x"}).exitCode, 2);
  EXPECT_EQ(shell("printf 'a\\000b' | \"$OVERHUB\" call web-1 7 - --host " + address_).exitCode, 2);
}

// Where a client is, in this order: as the command says, as a person recorded, as it came last.
TEST_F(OverhubRequestTest, FindsTheClient) {
  const auto unknown = overhub({"push", "web-1"});
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_TRUE(contains(unknown.err, "--host") && contains(unknown.err, "client-host")) << unknown.err;
  {
    const auto server = serve();
    become("web-1");
    CLqNetwork network;
    ASSERT_FALSE(attach(network).IsError());
    leave(network);
    EXPECT_EQ(fileText("addresses/web-1"), "127.0.0.1\n");
  }
  constexpr std::uint16_t kOtherPort = 8405;
  const auto listening = host(verdictOf(OBGui::kTaskSuccess), kOtherPort);
  const std::vector<std::string> push{"push", "web-1", "--port", std::to_string(kOtherPort)};
  const std::string elsewhere = test_support::uniqueLoopbackAddress();
  test_support::writeFile(data_ + "/addresses/web-1", address_ + "\n");
  EXPECT_EQ(overhub(push).out, "applied\n");
  expectOk({"client-host", "web-1", elsewhere});
  const auto lost = overhub(push);
  EXPECT_EQ(lost.exitCode, 4);
  for (const std::string& part :
       {std::string("web-1"), elsewhere, std::string("8405"), std::string("lqhost run")})
    EXPECT_TRUE(contains(lost.err, part)) << lost.err;
  EXPECT_EQ(atHost(push).out, "applied\n");
  EXPECT_EQ(overhub({"client-host", "web-1", "a*b"}).exitCode, 2);
  EXPECT_EQ(overhub({"client-host", "web-2", "host"}).exitCode, 1);
}

// Whatever the other end does, the command ends and says what it was.
TEST_F(OverhubRequestTest, ErrorsNameTheClientAndTheReason) {
  const struct {
    Script script;
    int exitCode;
    const char* reason;
    const char* seconds = "60";
  } cases[] = {
      {[](CLqNetwork& network, const CNMessageBase&) { network.SendRefusal("not today"); }, 1, "not today"},
      {[](CLqNetwork& network, const CNMessageBase&) { reply(network, App::GenericResp()); }, 1,
       "App.GenericResp"},
      {verdictOf(2), 1, "task status 2"},
      {[](CLqNetwork& network, const CNMessageBase&) {
         bool peerGone = false;
         network.Disconnect(60, peerGone);
       },
       1, "ended the session"},
      {[](CLqNetwork& network, const CNMessageBase&) {
         bool peerGone = true;
         network.Disconnect(60, peerGone);
       },
       4, "may have been carried out"},
      {[](CLqNetwork& network, const CNMessageBase&) {
         bool peerGone = false;  // says nothing until the server leaves
         network.ReplyDisconnect(60, peerGone);
       },
       4, "--timeout", "3"},
  };
  for (const auto& [script, exitCode, reason, seconds] : cases) {
    const auto listening = host(script);
    const auto result = atHost({"push", "web-1", "--timeout", seconds});
    EXPECT_EQ(result.exitCode, exitCode) << result.err;
    EXPECT_TRUE(contains(result.err, reason)) << result.err;
    EXPECT_TRUE(contains(result.err, "client web-1 at " + address_ + " port 8404")) << result.err;
    EXPECT_EQ(result.out, "");
  }
  {
    const PlayedHost listening(address_, programs::kHostServicePort, std::string(64, 'a'), {});
    const auto result = atHost({"push", "web-1"});
    EXPECT_TRUE(result.exitCode == 1 && contains(result.err, "lqhost join")) << result.err;
  }
  {
    const test_support::ScriptedPeer refusing(
        address_, programs::kHostServicePort, "web-1", key(), [](auto& peer) {
          if (!peer.handshake()) return;
          peer.readFrame();
          peer.writeFrame(test_support::PeerSession::kRefuse, "no such entry");
          peer.waitForClose();
        });
    const auto result = atHost({"push", "web-1"});
    EXPECT_TRUE(result.exitCode == 1 && contains(result.err, "no such entry")) << result.err;
  }
  for (const std::vector<std::string>& command : {std::vector<std::string>{"push", "web-2"},
                                                  {"fetch", "web-2", "p", "n"},
                                                  {"call", "web-2", "1", "x"},
                                                  {"uploads", "web-2"},
                                                  {"push", "@static"}}) {
    const auto result = overhub(command);
    EXPECT_TRUE(result.exitCode == 1 && contains(result.err, command[1])) << result.err;
  }
  test_support::writeFile(data_ + "/keys/web-1.key", "short");
  EXPECT_EQ(atHost({"push", "web-1"}).exitCode, 3);
}

}  // namespace
