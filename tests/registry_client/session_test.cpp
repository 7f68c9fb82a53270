// The client object and one exchange with the server: the order of steps, what the log says of each, and the
// state that every fault leaves behind.
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

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
  bool exchange(LqRegistryManagerClnt& client) {
    client.sendMessage = &request_;
    client.receivedMessage.reset();
    return client.networkOperationsReg(-1, -1);
  }

  OBGui::RegistryTaskReq request_;
};

// --- the object --------------------------------------------------------------------------------------------

TEST_F(Session, ThePlatformTypeIsWhatSessionsKnowOfTheMachines) {
  const std::pair<const char*, std::uint32_t> cases[] = {{"0", 0},  {"1", 0},         {"2", 2}, {"4", 4},
                                                         {"5", 4},  {"6", 2},         {"7", 2}, {"8", 0},
                                                         {"-6", 4}, {"4294967298", 4}};
  for (const auto& [bits, type] : cases) {
    setValue("Machine", "nPLATFORMTYPE", bits);
    const LqRegistryManagerClnt client("");
    EXPECT_EQ(client.getLocalPlatformType(), type) << bits;
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
            (Lines{"error|LqRegistryManagerClnt::initialize|Failed to get client id for client[client42]",
                   kConnectFailed}));
  EXPECT_EQ(server->sessions(), 0);

  setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", "0");
  EXPECT_FALSE(client.initialize()) << "0 is no id";
  setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", "42");
  client.setLocalHostName("");
  client.setRemoteHostName("");
  EXPECT_TRUE(client.initialize());
  EXPECT_EQ(client.getLocalHostName() + " " + client.getRemoteHostName(), "host42 " + address_);
  removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
  EXPECT_FALSE(client.initialize());
  EXPECT_EQ(client.clientId, 0U) << "an id that is no longer known is forgotten";
}

TEST_F(Session, AClientIsKnownByItsOwnNameOrAsTheOneThatThisMachineJoinedAs) {
  const auto idOf = [](const std::string& name, const void* context = nullptr) {
    std::uint64_t id = 99;  // stays when the client is not known
    const bool isKnown = LQClient(name, false, 0).getClientId(id, context) == 0;
    EXPECT_EQ(id == 99, !isKnown);
    return isKnown ? id : 0;
  };
  setValue("SOFTWARE/Velmor/Clients/client42/below", "nCLIENTID", "7");
  EXPECT_FALSE(LQClient::recordClient("client42/other", 7));
  EXPECT_EQ(idOf("client42"), 42U);
  EXPECT_EQ(idOf("machine42"), 42U);
  for (const char* unknown : {"machine43", "client42/below", "client42/other", ""})
    EXPECT_EQ(idOf(unknown), 0U) << unknown;
  EXPECT_EQ(idOf("client42", this), 0U);
  setValue("Overhub", "sSESSIONIDENTITY", "client42/below");
  EXPECT_EQ(idOf("machine42"), 0U);
  for (const char* text : {"", "42x", " 42", "-1"}) {
    setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", text);
    EXPECT_EQ(idOf("client42"), 0U) << text;
  }
  std::string target = "as it was";
  EXPECT_NE(LQClient(kServerClientId + 1).getNetworkHostnameMangled(target), 0);
  EXPECT_EQ(target, "as it was");
}

// --- a good exchange ---------------------------------------------------------------------------------------

TEST_F(Session, AnExchangeIsWithTheServerThatTheRegistryNamesByThen) {
  bool saidGoodbye = false;
  auto server = serve({[&](PlayedServer::Stage& stage) {
    stage.acceptAttach();
    stage.takeMessage();
    stage.peer.writeFrame(PeerSession::kMessage, batchText({record("A", "sVALUE", "1")}));
    saidGoodbye = stage.peer.answerGoodbye();
  }});
  LqRegistryManagerClnt client("");
  EXPECT_EQ(client.getRemoteHostName(), "");
  client.setRemoteHostName("elsewhere");
  const oblog::Capture log;
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.network, nullptr);
  const auto* reply = messageAs<OBGui::RegistryTaskResp>(client.receivedMessage.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->keys->at(0).valueName.get(), "sVALUE");
  const std::string tag = std::to_string(OBGui::RegistryTaskReq::kTag);
  EXPECT_EQ(linesOf(log, kPrefix), (Lines{"10|LqRegistryManagerClnt::dllConnect|Remote HostName [" +
                                              address_ + "] , Local Host Name [host42]",
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
  EXPECT_TRUE(saidGoodbye);

  address_ = uniqueLoopbackAddress();
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
    EXPECT_EQ(linesOf(log), (Lines{line, kConnectFailed}));
    EXPECT_EQ(client.network.get(), stale) << "what was there is not touched";
    setValue("Overhub", missing, address_);
  }
  for (int unknown = 0; unknown < 3; ++unknown) {
    LqRegistryManagerClnt client("");
    if (unknown == 0) client.setLocalHostName("");
    if (unknown == 1) client.setLocalPlatformType(4294967295);
    if (unknown == 2) client.setRemotePlatformType(4294967295);
    const oblog::Capture log;
    EXPECT_FALSE(exchange(client));
    EXPECT_EQ(linesOf(log), Lines{kConnectFailed});
  }
  EXPECT_EQ(server->sessions(), 0);
}

TEST_F(Session, AServerThatCannotBeAttachedToLeavesAStaleConnection) {
  auto server = serve({refusing("no such library here")});
  LqRegistryManagerClnt client("");
  const oblog::Capture log(0);
  EXPECT_FALSE(exchange(client));
  const Lines lines = linesOf(log, kPrefix);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(hasLine(
      log, "0|" + kPrefix + "dllConnect|1-Failed to connect to the remote machine " + address_ + " Error "));
  EXPECT_TRUE(contains(lines[0], "no such library here")) << lines[0];
  EXPECT_EQ(lines[1], kConnectFailed);
  ASSERT_NE(client.network, nullptr);
  EXPECT_FALSE(client.network->IsConnected());
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
  client.disconnect();  // without a connection, nothing
  EXPECT_FALSE(client.sendXMLMessage() || client.receiveXMLMessage());
}

TEST_F(Session, AFailedReplyLeavesAStaleConnectionWhenThePeerIsLostAndElseNone) {
  for (const bool isLost : {true, false}) {
    auto server = serve({[isLost](PlayedServer::Stage& stage) {
                           stage.acceptAttach();
                           stage.takeMessage();
                           if (isLost) return stage.peer.reset();
                           stage.peer.writeFrame(PeerSession::kRefuseRequest, "not now");
                           stage.peer.answerGoodbye();
                         },
                         answering("<LqEntities.Association/>")});
    LqRegistryManagerClnt client("");
    const oblog::Capture log(2);
    EXPECT_FALSE(exchange(client));
    EXPECT_EQ(client.receivedMessage, nullptr);
    EXPECT_EQ(linesOf(log, kPrefix).back(), kReceiveFailed);
    const std::string tag = "plain|LqRegistryManagerClnt::receiveXMLMessage|";
    EXPECT_TRUE(hasLine(log, tag + (isLost ? "Connection to remote machine lost. Msg["
                                           : "LqRegistryManagerClnt::Failed to receive message [")));
    EXPECT_EQ(client.network != nullptr, isLost);
    EXPECT_FALSE(client.network && client.network->IsConnected());
    EXPECT_TRUE(exchange(client)) << "the next exchange reconnects, and any message of the server's is read";
    EXPECT_EQ(server->sessions(), 2);
  }
}

}  // namespace
