// The client object and one exchange with the server: the order of steps, what the log says of each, and the
// state that every fault leaves behind.
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryManagerClnt.h"
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

TEST_F(Session, ThePlatformTypeIsWhatSessionsKnowOfTheMachines) {
  const struct {
    const char* bits;
    std::uint32_t type;
  } cases[] = {{"1", 0}, {"2", 2}, {"4", 4}, {"5", 4}, {"6", 2}, {"7", 2}, {"8", 0}};
  for (const auto& c : cases) {
    setValue("Machine", "nPLATFORMTYPE", c.bits);
    const LqRegistryManagerClnt client("");
    EXPECT_EQ(client.getLocalPlatformType(), c.type) << c.bits;
    EXPECT_EQ(client.getRemotePlatformType(), 1U);
  }
}

TEST_F(Session, NamesKeepTheirLastByteAndLoseWhatTheirBuffersCannotHold) {
  setValue("Machine", "sHOSTNAME", std::string(1024, 'l'));
  setValue("Hosts/" + std::string(1023, 'l'), "sCLIENTNAME", std::string(1025, 'c'));
  ASSERT_TRUE(LQClient::recordClient(std::string(1024, 'c'), 7));
  LqRegistryManagerClnt client("");
  EXPECT_EQ(client.getLocalHostName(), std::string(1023, 'l'));
  EXPECT_EQ(client.clientId, 7U);

  // The names that a machine attaches under, and the server's: one that does not fit whole is none.
  auto server = serve({taking(), taking(), taking()});
  client.sendOnly = true;
  setValue("Machine", "sPHYSICALNAME", std::string(300, 'm'));
  EXPECT_TRUE(exchange(client));
  setValue("Machine", "nPLATFORMTYPE", "7");
  for (const std::size_t length : {255U, 256U}) {
    setValue("Overhub", "sOHCLIENTNAME", std::string(length, 'o'));
    EXPECT_TRUE(exchange(client));
  }
  const std::string callers[] = {std::string(255, 'm'), std::string(255, 'o'), ""};
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_NE(server->attachments().at(i).find("caller=\"" + callers[i] + "\""), std::string::npos) << i;

  client.setLocalHostName("");  // so that nobody is looked for under these names
  for (const std::size_t length : {1023U, 1024U}) {
    setValue("Overhub", "sOHHOSTNAME", std::string(length, 'h'));
    EXPECT_FALSE(client.dllConnect());
    EXPECT_EQ(client.getRemoteHostName(), length == 1023 ? std::string(length, 'h') : "");
  }
}

TEST_F(Session, WithoutAnIdTheClientIsUnsetAndConnectsToNobody) {
  auto server = serve({});
  removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
  const oblog::Capture log;
  LqRegistryManagerClnt client("");
  EXPECT_EQ(client.clientId, 0U);
  EXPECT_EQ(client.getLocalPlatformType(), 4294967295U);
  EXPECT_EQ(client.getRemotePlatformType(), 4294967295U);
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
}

// --- a good exchange ---------------------------------------------------------------------------------------

TEST_F(Session, AnExchangeAttachesSendsReceivesAndTakesLeave) {
  bool tookLeave = false;
  auto server = serve({[&](PlayedServer::Stage& stage) {
    stage.acceptAttach();
    stage.takeMessage();
    stage.peer.writeFrame(PeerSession::kMessage, batchText({record("A", "sVALUE", "1")}));
    tookLeave = stage.peer.answerGoodbye();
  }});
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

  EXPECT_EQ(server->sessions(), 1);
  EXPECT_EQ(server->message<OBGui::RegistryTaskReq>(0).client->clientId, kClientId);
  const std::string asked = server->attachments().at(0);
  for (const char* part :
       {"library=\"sLNREGKEYMANAGER\"", "entry=\"sLPREGKEYMANAGER\"", "caller=\"machine42\""})
    EXPECT_NE(asked.find(part), std::string::npos) << asked;
  server.reset();  // ends with the peer's script
  EXPECT_TRUE(tookLeave);
}

TEST_F(Session, EveryConnectionGoesToTheServerThatTheRegistryNamesByThen) {
  auto first = serve({answering(batchText({}))});
  LqRegistryManagerClnt client("");
  EXPECT_EQ(client.getRemoteHostName(), "");
  client.setRemoteHostName("elsewhere");
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.getRemoteHostName(), address_);

  address_ = test_support::uniqueLoopbackAddress();
  setValue("Overhub", "sOHHOSTNAME", address_);
  auto second = serve({taking()});
  client.sendOnly = true;
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.receivedMessage, nullptr);
  EXPECT_EQ(client.getRemoteHostName(), address_);
  EXPECT_EQ(second->messages().size(), 1U);
}

// --- before the connection ---------------------------------------------------------------------------------

TEST_F(Session, WithoutTheServersNamesThereIsNoConnection) {
  auto server = serve({});
  const std::string tag = "plain|LqRegistryManagerClnt::dllConnect|";
  const std::pair<const char*, std::string> cases[] = {
      {"sOHHOSTNAME", tag + "Failed to get the OH Client  hostname from regsitry"},
      {"sOHCLIENTNAME", tag + "Failed to get the OH Client name from regsitry"}};
  for (const auto& [missing, line] : cases) {
    LqRegistryManagerClnt client("");
    client.network = std::make_unique<CLqNetwork>();
    const CLqNetwork* const stale = client.network.get();
    removeValue("Overhub", missing);
    const oblog::Capture log;
    EXPECT_FALSE(exchange(client));
    EXPECT_EQ(linesOf(log), (std::vector<std::string>{line, kConnectFailed}));
    EXPECT_EQ(client.network.get(), stale) << "what was there is not touched";
    setValue("Overhub", missing, address_);
  }
  const std::function<void(LqRegistryManagerClnt&)> spoils[] = {
      [](LqRegistryManagerClnt& client) { client.setLocalHostName(""); },
      [](LqRegistryManagerClnt& client) { client.setLocalPlatformType(4294967295); },
      [](LqRegistryManagerClnt& client) { client.setRemotePlatformType(4294967295); }};
  for (const auto& spoil : spoils) {
    LqRegistryManagerClnt client("");
    spoil(client);
    const oblog::Capture log;
    EXPECT_FALSE(exchange(client));
    EXPECT_EQ(linesOf(log), std::vector<std::string>{kConnectFailed});
  }
  EXPECT_EQ(server->sessions(), 0);
}

TEST_F(Session, AServerThatCannotBeAttachedToLeavesAStaleConnection) {
  std::unique_ptr<PlayedServer> server;  // at first, nobody listens
  for (const std::string& reason : {std::string(), std::string("no such library here")}) {
    if (!reason.empty()) server = serve({refusing(reason)});
    LqRegistryManagerClnt client("");
    const oblog::Capture log;
    EXPECT_FALSE(exchange(client));
    EXPECT_TRUE(
        hasLine(log, "0|LqRegistryManagerClnt::dllConnect|1-Failed to connect to the remote machine " +
                         address_ + " Error "));
    EXPECT_NE(linesOf(log, kPrefix + "dllConnect").back().find(reason), std::string::npos);
    EXPECT_EQ(linesOf(log, kPrefix).back(), kConnectFailed);
    ASSERT_NE(client.network, nullptr);
    EXPECT_FALSE(client.network->IsConnected());
  }
}

// --- during the exchange -----------------------------------------------------------------------------------

TEST_F(Session, AMessageThatCannotBeSentEndsTheConnection) {
  LqRegistryManagerClnt client("");
  client.sendMessage = &request_;
  client.network = std::make_unique<CLqNetwork>();  // one that is not connected sends nothing
  const oblog::Capture log(2);
  EXPECT_FALSE(client.messageOperationsReg());
  EXPECT_TRUE(hasLine(log, "plain|LqRegistryManagerClnt::sendXMLMessage|Failed to send message [" +
                               std::to_string(OBGui::RegistryTaskReq::kTag) + "], Error ["));
  EXPECT_EQ(linesOf(log).back(), kSendFailed);
  EXPECT_EQ(client.network, nullptr);
}

TEST_F(Session, AFailedReplyLeavesAStaleConnectionWhenThePeerIsLostAndElseNone) {
  const auto saying = [](int kind, const std::string& payload) {
    return [kind, payload](PeerSession& peer) {
      peer.writeFrame(kind, payload);
      peer.answerGoodbye();
    };
  };
  const struct {
    const char* name;
    std::function<void(PeerSession&)> play;
    bool isLost;  // the peer vanished; otherwise it said something that cannot be used
  } faults[] = {{"closes", [](PeerSession&) {}, true},
                {"resets", [](PeerSession& peer) { peer.reset(); }, true},
                {"breaks the text", saying(PeerSession::kMessage, "<OBGui.RegistryTaskResp><keys>"), false},
                {"refuses the request", saying(PeerSession::kRefuseRequest, "not now"), false},
                {"says goodbye", saying(PeerSession::kGoodbye, ""), false}};
  for (const auto& fault : faults) {
    SCOPED_TRACE(fault.name);
    auto server = serve({[&](PlayedServer::Stage& stage) {
                           stage.acceptAttach();
                           stage.takeMessage();
                           fault.play(stage.peer);
                         },
                         answering(batchText({}))});
    LqRegistryManagerClnt client("");
    const oblog::Capture log(2);
    EXPECT_FALSE(exchange(client));
    EXPECT_EQ(client.receivedMessage, nullptr);
    EXPECT_EQ(linesOf(log, kPrefix).back(), kReceiveFailed);
    const std::string tag = "plain|LqRegistryManagerClnt::receiveXMLMessage|";
    EXPECT_TRUE(hasLine(log, tag + (fault.isLost ? "Connection to remote machine lost. Msg["
                                                 : "LqRegistryManagerClnt::Failed to receive message [")));
    EXPECT_EQ(client.network != nullptr, fault.isLost);
    EXPECT_FALSE(client.network && client.network->IsConnected());
    EXPECT_TRUE(exchange(client)) << "the next exchange reconnects";
    EXPECT_EQ(server->sessions(), 2);
  }
}

}  // namespace
