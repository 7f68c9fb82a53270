// Requests that the server makes of a client, with this process as the client's host service.

#include <semaphore>

#include "common/host_service.h"
#include "lqregistry/App.h"
#include "tests/overhub/overhub_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

// Answers one message of the server.
using Script = std::function<void(PeerSession& session, const CNMessageBase& request)>;

void reply(PeerSession& session, const CNMessageBase& message) {
  std::string text;
  EXPECT_EQ(message.serialize(text, true), 0);
  session.writeFrame(PeerSession::kMessage, text);
}

// Answers a push with this task status.
Script verdictOf(std::int64_t taskStatus) {
  return [taskStatus](PeerSession& session, const CNMessageBase&) {
    OBGui::RegistryTaskResp verdict;
    verdict.client.edit().clientId = 7;
    verdict.taskStatus = taskStatus;
    reply(session, verdict);
  };
}

class OverhubRequestTest : public OverhubTest {
 protected:
  OverhubRequestTest() {
    App::RegisterSubsystem();
    expectOk({"add-client", "web-1", "--id", "7"});
  }
  // A host service that plays `script` for each caller with the client's key, and waits for its goodbye.
  std::unique_ptr<ScriptedPeer> host(Script script, std::uint16_t port = programs::kHostServicePort) const {
    const auto serve = [script = std::move(script)](PeerSession& session) {
      if (!session.acceptAttach()) return;
      std::unique_ptr<CNMessageBase> request;
      EXPECT_STREQ(CNMessageBase::fromText(session.readFrame().payload, request).AsString(), "");
      if (request) script(session, *request);
      session.answerGoodbye();
    };
    return std::make_unique<ScriptedPeer>(address_, port, "web-1", keyOf("web-1"), serve);
  }
  // The command with the host's address behind it.
  ProgramResult atHost(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--host", address_});
    return overhub(arguments);
  }
};

// The client applies what is pushed: its batch with the secrets, to which the records of a file are added
// first, all under its own client id.
TEST_F(OverhubRequestTest, PushSendsTheBatchAndRecordsTheVerdict) {
  expectOk({"set", "web-1", "~/Limits", "nMAX", "10"});
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  OBGui::RegistryTaskResp sent;
  const auto push = [&](std::int64_t verdict, const std::vector<std::string>& command) {
    const auto listening = host([&](PeerSession& session, const CNMessageBase& request) {
      sent = *messageAs<OBGui::RegistryTaskResp>(&request);
      verdictOf(verdict)(session, request);
    });
    return atHost(command);
  };
  expectOut(push(OBGui::kTaskSuccess, {"push", "web-1"}), 0, {"applied\n"});
  EXPECT_TRUE(sent.keys->size() == 2U && sent.keys->at(0).value.get() == "10" &&
              sent.keys->at(1).encryptedValue->reveal() == "sesame");

  const std::string file = dir_ / "other.xml";
  writeFile(file,
            "<OBGui.RegistryTaskResp taskStatus='2'><client clientId='99'/><keys>"
            "<OBGui.RegistryKeyInfo valueName='n' value='1'/>"
            "<OBGui.RegistryKeyInfo keyPath='Overhub' valueName='sSESSIONKEY' value='another machine'/>"
            "</keys></OBGui.RegistryTaskResp>");
  expectOut(push(OBGui::kTaskFailed, {"push", "web-1", file}), 1, {"failed\n"});
  EXPECT_TRUE(sent.keys->size() == 3U && sent.keys->at(0).valueName.get() == "n" &&
              sent.client->clientId == 7 && sent.taskStatus == OBGui::kTaskSuccess);
  expectOut(overhub({"show", "web-1"}), 0, {"      n     ", "  web-1         4\n"});
  const std::string acks = overhub({"acks", "web-1"}).out;
  const std::size_t first = acks.find("web-1    7       3  applied\n");
  EXPECT_TRUE(first < acks.find("web-1    7       1  failed\n") && first != std::string::npos) << acks;

  writeFile(file, "<broken");
  expectErr(atHost({"push", "web-1", file}), 1, {file});
}

// The payload belongs to whoever made it and whoever reads it: not a byte of it changes. Only a terminal,
// which would obey it, gets it made harmless.
TEST_F(OverhubRequestTest, CallCarriesPayloadsAsTheyAre) {
  const auto listening = host([](PeerSession& session, const CNMessageBase& request) {
    const auto& message = *messageAs<App::AppCommunicationMessageReq>(&request);
    App::AppCommunicationMessageResp answer;
    answer.payload = std::to_string(message.messageType.get()) + "|" + message.payload.get();
    reply(session, answer);
  });
  expectOut(atHost({"call", "web-1", "-9223372036854775808", "a\n\x1b\\<&> \xff"}), 0,
            {"-9223372036854775808|a\n\x1b\\<&> \xff\n"});
  const std::string asked = dir_ / "ask";
  writeFile(asked, "printf 'a\\n\\033[2J' | \"$OVERHUB\" call web-1 7 - --host " + address_);
  expectOut(shell("script -qec 'sh " + asked + "' /dev/null </dev/null"), 0, {"7|a\r\n\\x1b[2J"});
  EXPECT_EQ(outOf(shell("printf 'x\\n' | \"$OVERHUB\" call web-1 7 - --host " + address_)), "7|x\n\n");
  EXPECT_EQ(shell("printf 'a\\000b' | \"$OVERHUB\" call web-1 7 - --host " + address_).exitCode, 2);
}

// Where a client is, in this order: as the command says, as a person recorded, as it came last.
TEST_F(OverhubRequestTest, FindsTheClient) {
  expectErr(overhub({"push", "web-1"}), 1, {"--host", "client-host"});
  {
    const auto server = serve();
    become("web-1");
    CLqNetwork network;
    ASSERT_FALSE(attach(network).IsError());
    leave(network);
    expectOut(overhub({"clients"}), 0, {"web-1   7  127.0.0.1 "});
  }
  const auto listening = host(verdictOf(OBGui::kTaskSuccess), 8405);
  const std::vector<std::string> push{"push", "web-1", "--port", "8405"};
  const std::string elsewhere = uniqueLoopbackAddress();
  meddle("UPDATE contacts SET address = '" + address_ + "'");
  EXPECT_EQ(overhub(push).out, "applied\n");
  expectOk({"client-host", "web-1", elsewhere});
  expectErr(overhub(push), 4, {elsewhere, "lqhost run"});
  EXPECT_EQ(atHost(push).out, "applied\n");
  EXPECT_EQ(overhub({"client-host", "web-1", "a*b"}).exitCode, 2);
  expectOk({"client-host", "web-1", ""});
  EXPECT_EQ(overhub(push).out, "applied\n");
}

// Whatever the other end does, the command ends and says what it was.
TEST_F(OverhubRequestTest, ErrorsNameTheClientAndTheReason) {
  // What the other end does, and what the command ends with and says, given so many seconds.
  const std::tuple<Script, int, const char*, const char*> cases[] = {
      {[](PeerSession& session, const CNMessageBase&) {
         session.writeFrame(PeerSession::kRefuseRequest, "not today");
       },
       1, "not today", "60"},
      {[](PeerSession& session, const CNMessageBase&) { reply(session, App::GenericResp()); }, 1,
       "App.GenericResp", "60"},
      {verdictOf(2), 1, "task status 2", "60"},
      {[](PeerSession& session, const CNMessageBase&) { session.writeFrame(PeerSession::kGoodbye); }, 1,
       "ended the session", "60"},
      {[](PeerSession& session, const CNMessageBase&) { session.reset(); }, 4, "may have been carried out",
       "60"},
      {[](PeerSession&, const CNMessageBase&) {}, 4, "--timeout", "1"},
  };
  for (const auto& [script, exitCode, reason, seconds] : cases) {
    const auto listening = host(script);
    const auto result = atHost({"push", "web-1", "--timeout", seconds});
    expectErr(result, exitCode, {reason, "client web-1 at " + address_ + " port 8404"});
    EXPECT_EQ(result.out, "");
  }
  {
    const ScriptedPeer otherKey(address_, programs::kHostServicePort, "web-1", std::string(64, 'a'),
                                [](PeerSession& session) { session.handshake(); });
    expectErr(atHost({"push", "web-1"}), 1, {"lqhost join"});
  }
  expectErr(overhub({"fetch", "web-1", "SOFTWARE/Velmor", "n"}), 2, {"below the root of its instance"});
  for (const char* const nobody : {"web-2", "@static"}) expectErr(overhub({"push", nobody}), 1, {nobody});
}

// One that hangs costs the others its own place and nothing else, and what each answers stays in one piece.
TEST_F(OverhubRequestTest, SeveralMachinesAreAskedAtATime) {
  std::counting_semaphore<2> othersAsked(0);
  std::vector<std::unique_ptr<ScriptedPeer>> hosts;
  const auto listen = [&](const std::string& client, const Script& script) {
    const std::string address = uniqueLoopbackAddress();
    expectOk({"client-host", client, address});
    const auto serve = [script](PeerSession& session) {
      if (!session.acceptAttach()) return;
      std::unique_ptr<CNMessageBase> request;
      EXPECT_STREQ(CNMessageBase::fromText(session.readFrame().payload, request).AsString(), "");
      if (request) script(session, *request);
      session.answerGoodbye();
    };
    hosts.push_back(
        std::make_unique<ScriptedPeer>(address, programs::kHostServicePort, client, keyOf(client), serve));
  };
  const auto answers = [&](const std::string& text) -> Script {
    return [&othersAsked, text](PeerSession& session, const CNMessageBase&) {
      othersAsked.release();
      App::AppCommunicationMessageResp answer;
      answer.payload = text;
      reply(session, answer);
    };
  };
  for (const char* const client : {"web-2", "web-10", "web-11"}) expectOk({"add-client", client});
  listen("web-1", answers("1\nx"));
  listen("web-2", [&](PeerSession& session, const CNMessageBase&) {
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(othersAsked.try_acquire_for(std::chrono::seconds(kPatience)));
    App::AppCommunicationMessageResp answer;
    answer.payload = std::string("2\ny");
    reply(session, answer);
  });
  listen("web-10", answers("10\nz"));
  const auto called = overhub({"call", "web-*", "7", "hello", "--parallel", "2"});
  expectOut(called, 1, {"web-1:\n1\nx\n", "web-2:\n2\ny\n", "web-10:\n10\nz\n"});
  const std::size_t table = called.out.find(
      "MACHINE  RESULT    TEXT\nweb-1    answered\nweb-2    answered\n"
      "web-10   answered\nweb-11   refused   where client web-11 is");
  EXPECT_TRUE(table != std::string::npos && table > called.out.find("web-10:\n")) << called.out;

  hosts.clear();
  listen("web-1", verdictOf(OBGui::kTaskSuccess));
  listen("web-2", verdictOf(OBGui::kTaskFailed));
  expectOut(overhub({"push", "web-1,web-2"}), 1,
            {"MACHINE  RESULT   TEXT\nweb-1    applied\nweb-2    failed\n"});
  expectOk({"client-host", "web-2", uniqueLoopbackAddress()});
  expectOut(overhub({"push", "web-1,web-2,web-11"}), 4,
            {"web-2    unreachable", "lqhost run", "web-11   refused"});
  expectErr(overhub({"push", "web-*", "--host", address_}), 2, {"--host", "4"});
  expectErr(overhub({"push", "web-*", "--dry-run"}), 2, {"without a FILE a push changes nothing"});
  expectErr(overhub({"push", "web-*", dir_ / "any.xml"}), 2, {"one client"});
  expectOk({"add-group", "none", "--number", "1"});
  expectErr(overhub({"push", "@none"}), 1, {"@none has no machine"});
}

}  // namespace
