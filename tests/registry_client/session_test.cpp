// The client object and one exchange with the server: the order of steps, what the log says of each, and the
// state that every fault leaves behind.
#include "registry_client/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

using test_support::PeerSession;

const std::string kPrefix = "LqRegistryManagerClnt::";
const std::string kConnectFailed =
    "0|LqRegistryManagerClnt::networkOperationsReg|Failed to connect to remote machine";
const std::string kSendFailed =
    "plain|LqRegistryManagerClnt::messageOperationsReg|Failed to send XML message";
const std::string kReceiveFailed =
    "plain|LqRegistryManagerClnt::messageOperationsReg|Failed to receive XML message";

class Session : public ProductTest {
 protected:
  Session() {
    join();
    request_.client.edit().clientId = kClientId;
  }
  std::unique_ptr<PlayedServer> serve(std::vector<PlayedServer::Script> scripts) {
    return std::make_unique<PlayedServer>(address_, sessionKey_, std::move(scripts));
  }
  bool exchange(LqRegistryManagerClnt& client) {
    client.sendMessage = &request_;
    client.receivedMessage.reset();
    return client.networkOperationsReg(-1, -1);
  }

  OBGui::RegistryTaskReq request_;
};

// --- the object --------------------------------------------------------------------------------------------

TEST_F(Session, AClientOfAJoinedMachineKnowsItself) {
  const LqRegistryManagerClnt client("");
  EXPECT_EQ(client.clientId, 42U);
  EXPECT_EQ(client.getLocalHostName(), "host42");
  EXPECT_EQ(client.getRemoteHostName(), "") << "every connection looks it up afresh";
  EXPECT_EQ(client.getRemotePlatformType(), 1U);
  EXPECT_EQ(client.network, nullptr);
  EXPECT_EQ(client.sendMessage, nullptr);
  const struct {
    const char* bits;
    std::uint32_t type;
  } cases[] = {{"1", 0}, {"2", 2}, {"4", 4}, {"5", 4}, {"6", 2}, {"7", 2}, {"8", 0}};
  for (const auto& c : cases) {
    setValue("Machine", "nPLATFORMTYPE", c.bits);
    EXPECT_EQ(LqRegistryManagerClnt("").getLocalPlatformType(), c.type) << c.bits;
  }
}

TEST_F(Session, TheFocusChoosesTheInstance) {
  LqRegistryManagerClnt other("Instance002");
  const OBGui::RegistryKeyInfo key = record("Path", "sVALUE", "1");
  EXPECT_EQ(other.createRegistryKey(&key), 0);
  EXPECT_EQ(valueOf("SOFTWARE/Velmor/Instance002/Path", "sVALUE"), "1");
  EXPECT_EQ(valueOf("Path", "sVALUE"), std::nullopt);
}

TEST_F(Session, WithoutAnIdTheClientIsUnsetAndConnectsToNobody) {
  auto server = serve({});
  removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
  const oblog::Capture log;
  LqRegistryManagerClnt client("");
  EXPECT_EQ(client.clientId, 0U);
  EXPECT_EQ(client.getLocalPlatformType(), 4294967295U);
  EXPECT_EQ(client.getRemotePlatformType(), 4294967295U);
  EXPECT_EQ(client.getLocalHostName(), "host42");
  EXPECT_FALSE(exchange(client));
  EXPECT_EQ(linesOf(log),
            (std::vector<std::string>{
                "error|LqRegistryManagerClnt::initialize|Failed to get client id for client[client42]",
                kConnectFailed}));
  EXPECT_EQ(server->sessions(), 0);

  setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", "0");
  EXPECT_FALSE(client.initialize()) << "0 is no id";
  setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", "42");
  EXPECT_TRUE(client.initialize());
  EXPECT_EQ(client.getRemoteHostName(), address_);
}

// --- a good exchange ---------------------------------------------------------------------------------------

TEST_F(Session, AnExchangeAttachesSendsReceivesAndTakesLeave) {
  bool tookLeave = false;
  auto server =
      serve({[&](PlayedServer::Stage& stage) {
               stage.acceptAttach();
               stage.takeMessage();
               stage.peer.writeFrame(PeerSession::kMessage, batchText({record("A", "sVALUE", "1")}));
               tookLeave = stage.peer.answerGoodbye();
             },
             answering(batchText({}))});
  LqRegistryManagerClnt client("");
  const oblog::Capture log;
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.network, nullptr);
  const auto* reply = messageAs<OBGui::RegistryTaskResp>(client.receivedMessage.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->keys->at(0).valueName.get(), "sVALUE");
  const std::string tag = std::to_string(OBGui::RegistryTaskReq::kTag);
  EXPECT_EQ(linesOf(log, kPrefix),
            (std::vector<std::string>{"10|LqRegistryManagerClnt::dllConnect|Remote HostName [" + address_ +
                                          "] , Local Host Name [host42]",
                                      "2|LqRegistryManagerClnt::sendXMLMessage|Sent message [" + tag +
                                          "] successfully to remote machine [" + address_ + "]",
                                      "plain|LqRegistryManagerClnt::receiveXMLMessage|Received message "
                                      "successfully from remote machine [" +
                                          address_ + "]"}));
  for (const oblog::Line& line : log.Lines()) EXPECT_EQ(line.logId, 281908688U);

  EXPECT_TRUE(exchange(client)) << "a second exchange connects anew";
  EXPECT_EQ(server->sessions(), 2);
  EXPECT_TRUE(tookLeave);
  EXPECT_EQ(server->message<OBGui::RegistryTaskReq>(0).client->clientId, kClientId);
  const std::string asked = server->attachments().at(0);
  for (const char* part :
       {"library=\"sLNREGKEYMANAGER\"", "entry=\"sLPREGKEYMANAGER\"", "caller=\"machine42\""})
    EXPECT_NE(asked.find(part), std::string::npos) << asked;
}

TEST_F(Session, OnTheServersOwnMachineTheCallerIsTheServersClient) {
  setValue("Machine", "nPLATFORMTYPE", "5");
  auto server = serve({answering(batchText({}))});
  LqRegistryManagerClnt client("");
  EXPECT_TRUE(exchange(client));
  EXPECT_NE(server->attachments().at(0).find("caller=\"overhub\""), std::string::npos);
}

TEST_F(Session, SendOnlyWaitsForNoReply) {
  auto server = serve({taking()});
  LqRegistryManagerClnt client("");
  client.sendOnly = true;
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.receivedMessage, nullptr);
  EXPECT_EQ(client.network, nullptr);
  EXPECT_EQ(server->messages().size(), 1U);
}

// --- before the connection ---------------------------------------------------------------------------------

TEST_F(Session, WithoutTheServersNamesThereIsNoConnection) {
  auto server = serve({});
  const struct {
    const char* missing;
    std::string line;
  } cases[] = {
      {"sOHHOSTNAME",
       "plain|LqRegistryManagerClnt::dllConnect|Failed to get the OH Client  hostname from regsitry"},
      {"sOHCLIENTNAME",
       "plain|LqRegistryManagerClnt::dllConnect|Failed to get the OH Client name from regsitry"}};
  for (const auto& c : cases) {
    LqRegistryManagerClnt client("");
    removeValue("Overhub", c.missing);
    const oblog::Capture log;
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(exchange(client));
    EXPECT_EQ(linesOf(log), (std::vector<std::string>{c.line, kConnectFailed, c.line, kConnectFailed}));
    EXPECT_EQ(client.network, nullptr);
  }
  EXPECT_EQ(server->sessions(), 0);
}

TEST_F(Session, AServerThatCannotBeAttachedToLeavesAStaleConnection) {
  const std::string failed =
      "0|LqRegistryManagerClnt::dllConnect|1-Failed to connect to the remote machine " + address_ + " Error ";
  const auto expectStale = [&](std::vector<PlayedServer::Script> scripts, const std::string& reason) {
    std::unique_ptr<PlayedServer> server;
    if (!scripts.empty()) server = serve(std::move(scripts));
    LqRegistryManagerClnt client("");
    const oblog::Capture log;
    EXPECT_FALSE(exchange(client));
    EXPECT_TRUE(hasLine(log, failed)) << reason;
    EXPECT_NE(linesOf(log, kPrefix + "dllConnect").back().find(reason), std::string::npos);
    EXPECT_EQ(linesOf(log, kPrefix).back(), kConnectFailed);
    ASSERT_NE(client.network, nullptr);
    EXPECT_FALSE(client.network->IsConnected());
  };
  expectStale({}, "");  // nobody listens
  expectStale({refusing("no such library here")}, "no such library here");
  expectStale({[](PlayedServer::Stage&) {}}, "");
  expectStale({[](PlayedServer::Stage& stage) { stage.peer.handshakeWithCertificate(); }}, "");
  expectStale({[](PlayedServer::Stage& stage) {
                if (stage.peer.handshake()) stage.peer.writeFrame(PeerSession::kMessage, "<no/>");
                stage.peer.waitForClose();
              }},
              "");
}

TEST_F(Session, WithoutAMessageTheConnectionStaysOpen) {
  auto server = serve({[](PlayedServer::Stage& stage) {
    stage.acceptAttach();
    stage.takeMessage();
    stage.peer.writeFrame(PeerSession::kMessage, batchText({}));
    stage.peer.answerGoodbye();
  }});
  LqRegistryManagerClnt client("");
  const oblog::Capture log(2);
  EXPECT_FALSE(client.networkOperationsReg(-1, -1));
  EXPECT_EQ(linesOf(log), std::vector<std::string>{kSendFailed});
  ASSERT_NE(client.network, nullptr);
  EXPECT_TRUE(client.network->IsConnected());
  EXPECT_TRUE(exchange(client)) << "an open connection is used as it is";
  EXPECT_EQ(server->sessions(), 1);
  client.disconnect();  // without a connection: nothing to do
}

// --- during the exchange -----------------------------------------------------------------------------------

TEST_F(Session, AMessageThatCannotBeSentEndsTheConnection) {
  auto server = serve({[](PlayedServer::Stage& stage) {
    stage.acceptAttach();
    stage.peer.answerGoodbye();
  }});
  OBGui::RegistryTaskResp tooLarge;
  tooLarge.keys.edit().push_back(record("A", "sVALUE", std::string(kMaxMessageFrameBytes, 'x')));
  LqRegistryManagerClnt client("");
  client.sendMessage = &tooLarge;
  const oblog::Capture log(2);
  EXPECT_FALSE(client.networkOperationsReg(-1, -1));
  EXPECT_TRUE(hasLine(log, "plain|LqRegistryManagerClnt::sendXMLMessage|Failed to send message [" +
                               std::to_string(OBGui::RegistryTaskResp::kTag) + "], Error ["));
  EXPECT_EQ(linesOf(log).back(), kSendFailed);
  EXPECT_EQ(client.network, nullptr);
}

struct ReplyFault {
  const char* name;
  std::function<void(PeerSession&)> play;
  bool lost;  // the peer vanished; otherwise it said something that cannot be used
};

class ReplyFaults : public Session, public testing::WithParamInterface<ReplyFault> {};

std::string frameOf(std::uint32_t length, const std::string& rest) {
  std::string bytes;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) bytes += static_cast<char>(length >> shift & 0xFFU);
  return bytes + rest;
}

INSTANTIATE_TEST_SUITE_P(
    Server, ReplyFaults,
    testing::Values(ReplyFault{"Closes", [](PeerSession&) {}, true},
                    ReplyFault{"Resets", [](PeerSession& s) { s.reset(); }, true},
                    ReplyFault{"ClosesInTheMiddle",
                               [](PeerSession& s) { s.writeInTls(frameOf(1000, "\x04<OBGui.Regis")); }, true},
                    ReplyFault{"ClosesInTheHeader",
                               [](PeerSession& s) { s.writeInTls(std::string(3, '\0')); }, true},
                    ReplyFault{"FrameTooLarge",
                               [](PeerSession& s) {
                                 s.writeInTls(frameOf(0xFFFFFFFF, "\x04"));
                                 s.waitForClose();
                               },
                               false},
                    ReplyFault{"BrokenXml",
                               [](PeerSession& s) {
                                 s.writeFrame(PeerSession::kMessage, "<OBGui.RegistryTaskResp><keys>");
                                 s.answerGoodbye();
                               },
                               false},
                    ReplyFault{"UnknownClass",
                               [](PeerSession& s) {
                                 s.writeFrame(PeerSession::kMessage, "<OBGui.NoSuchClass/>");
                                 s.answerGoodbye();
                               },
                               false},
                    ReplyFault{"RefusesTheRequest",
                               [](PeerSession& s) {
                                 s.writeFrame(PeerSession::kRefuseRequest, "not now");
                                 s.answerGoodbye();
                               },
                               false},
                    ReplyFault{"SaysGoodbye",
                               [](PeerSession& s) {
                                 s.writeFrame(PeerSession::kGoodbye);
                                 s.answerGoodbye();
                               },
                               false}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_P(ReplyFaults, LeaveAStaleConnectionWhenThePeerIsLostAndElseNone) {
  auto server = serve({[](PlayedServer::Stage& stage) {
                         stage.acceptAttach();
                         stage.takeMessage();
                         GetParam().play(stage.peer);
                       },
                       answering(batchText({}))});
  LqRegistryManagerClnt client("");
  const oblog::Capture log(2);
  EXPECT_FALSE(exchange(client));
  EXPECT_EQ(client.receivedMessage, nullptr);
  EXPECT_EQ(linesOf(log, kPrefix).back(), kReceiveFailed);
  const std::string tag = "plain|LqRegistryManagerClnt::receiveXMLMessage|";
  if (GetParam().lost) {
    EXPECT_TRUE(hasLine(log, tag + "Connection to remote machine lost. Msg["));
    ASSERT_NE(client.network, nullptr);
    EXPECT_FALSE(client.network->IsConnected());
  } else {
    EXPECT_TRUE(hasLine(log, tag + "LqRegistryManagerClnt::Failed to receive message ["));
    EXPECT_EQ(client.network, nullptr);
  }
  EXPECT_TRUE(exchange(client)) << "the next exchange reconnects";
  EXPECT_EQ(server->sessions(), 2);
}

}  // namespace
