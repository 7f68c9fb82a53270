// The application-message client: which handler answers a request and with what, and one exchange with the
// server in all its outcomes, with the texts that are this client's own.
#include "communication_client/LqCommunicationManagerClnt.h"

#include "tests/support/product_fixture.h"

namespace {

using test_support::PeerSession;

const std::string kPrefix = "LqCommunicationManagerClnt::";
const std::string kConnectFailed =
    "0|" + kPrefix + "networkOperationsRequest|Failed to connect to remote machine";
const std::string kExchangeFailed =
    "0|" + kPrefix + "networkOperationsRequest|messageOperationsRequest Failed";
const std::string kSendFailed = "plain|" + kPrefix + "messageOperationsRequest|Failed to send XML message";
const std::string kReceiveFailed =
    "plain|" + kPrefix + "messageOperationsRequest|Failed to receive XML message";
const std::string kReply = R"(<App.AppCommunicationMessageResp payload="well received"/>)";

int greet(std::string& payload) {
  payload = "hello, " + payload;
  return 0;
}
int greetLouder(std::string& payload) {
  payload = "HELLO, " + payload;
  return 0;
}
int fail(std::string& payload) {
  payload += " could not be greeted";
  return 5;
}

class CommunicationClient : public ProductTest {
 protected:
  CommunicationClient() { join(); }
  ~CommunicationClient() override { LqCommunicationManagerClnt::callBackFunctionMap.clear(); }

  // The payload that answers a request of this type.
  static std::string dispatch(LqCommunicationManagerClnt& client, std::int64_t type) {
    App::AppCommunicationMessageReq request;
    request.messageType = type;
    request.payload = std::string("world");
    EXPECT_EQ(client.serverRequestHandler(request), 0);
    EXPECT_EQ(request.payload.get(), "world");
    EXPECT_EQ(client.getXMLSendObj(), &client.serverRequest);
    return client.serverRequest.payload;
  }
  std::unique_ptr<PlayedServer> serve(std::vector<PlayedServer::Script> scripts) {
    return std::make_unique<PlayedServer>(address_, sessionKey_, std::move(scripts));
  }
  bool exchange(LqCommunicationManagerClnt& client) {
    client.setXMLSendObj(&message_);
    client.receivedMessage.reset();
    return client.networkOperationsRequest();
  }

  App::AppCommunicationMessageReq message_;
};

// --- the object --------------------------------------------------------------------------------------------

TEST_F(CommunicationClient, AClientKnowsItsMachineAndNeedsNoId) {
  for (const bool isIdKnown : {true, false}) {
    if (!isIdKnown) removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
    const oblog::Capture log;
    const LqCommunicationManagerClnt client("");
    EXPECT_TRUE(linesOf(log).empty());
    EXPECT_EQ(client.getRemoteHostName(), "") << "every connection looks it up afresh";
    EXPECT_EQ(client.getLocalHostName(), "host42");
    EXPECT_EQ(client.getLocalPlatformType(), 4U);
    EXPECT_EQ(client.getRemotePlatformType(), 1U);
    EXPECT_EQ(client.getXMLSendObj(), nullptr);
    EXPECT_EQ(client.receivedMessage, nullptr);
    EXPECT_FALSE(client.sendOnly || client.network.IsConnected() || client.serverRequest.payload.isSet());
  }
  LqCommunicationManagerClnt other("Instance002");
  EXPECT_EQ(other.getLocalHostName(), "") << "that instance has not joined";
  EXPECT_TRUE(other.initialize());
}

// --- requests of the server --------------------------------------------------------------------------------

TEST_F(CommunicationClient, TheHandlerOfTheTypeMakesTheAnswer) {
  LqCommunicationManagerClnt client("");
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(7, &greet), 1);
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(-1, &fail), 1);
  const oblog::Capture log;
  EXPECT_EQ(dispatch(client, 7), "hello, world");
  EXPECT_EQ(dispatch(client, (std::int64_t{1} << 32) + 7), "hello, world") << "only the low 32 bits count";
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(7, &greetLouder), 1);
  EXPECT_EQ(dispatch(client, 7), "HELLO, world");
  EXPECT_TRUE(linesOf(log).empty());
  EXPECT_EQ(dispatch(client, 4294967295), "world could not be greeted")
      << "what it wrote is sent all the same";
  EXPECT_EQ(linesOf(log), std::vector<std::string>{"0|" + kPrefix +
                                                   "serverRequestHandler|"
                                                   "Call Back function returned some error"});
}

TEST_F(CommunicationClient, ARequestWithoutAHandlerIsAnsweredWithTheReason) {
  LqCommunicationManagerClnt client("");
  const oblog::Capture log;
  for (const std::int64_t type : {std::int64_t{7}, (std::int64_t{1} << 32) + 7}) {
    App::GenericResp refusal;
    EXPECT_EQ(refusal.unserialize(dispatch(client, type)), 0);
    EXPECT_EQ(refusal.errorCode, 1);
    EXPECT_EQ(refusal.errorText.get(), "Callback function not implemented");
  }
  const std::string line = "0|" + kPrefix + "serverRequestHandler|Call Back function not implemented for [";
  EXPECT_EQ(linesOf(log), (std::vector<std::string>{line + "7]", line + "4294967303]"}));
}

// --- a good exchange ---------------------------------------------------------------------------------------

TEST_F(CommunicationClient, EachExchangeAttachesSendsReceivesAndTakesLeave) {
  message_.messageType = 7;
  auto server = serve({answering(kReply), answering(kReply)});
  LqCommunicationManagerClnt client("");
  for (std::size_t i = 0; i < 2; ++i) {
    const oblog::Capture log;
    EXPECT_TRUE(exchange(client));
    const auto* reply = messageAs<App::AppCommunicationMessageResp>(client.receivedMessage.get());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->payload.get(), "well received");
    EXPECT_FALSE(client.network.IsConnected());
    EXPECT_EQ(
        linesOf(log),
        (std::vector<std::string>{
            "10|" + kPrefix + "dllConnect|Remote HostName [" + address_ + "] , Local Host Name [host42]",
            "plain|" + kPrefix + "sendXMLMessage|Sent message [" +
                std::to_string(App::AppCommunicationMessageReq::kTag) + "] successfully to remote machine [" +
                address_ + "]",
            "plain|" + kPrefix + "receiveXMLMessage|Received message successfully from remote machine [" +
                address_ + "]"}));
    for (const oblog::Line& line : log.Lines()) EXPECT_EQ(line.logId, 281908688U);
    EXPECT_EQ(server->message<App::AppCommunicationMessageReq>(i).messageType, 7);
    for (const char* part :
         {"library=\"sLNREGKEYMANAGER\"", "entry=\"sLPREGKEYMANAGER\"", "caller=\"machine42\""})
      EXPECT_NE(server->attachments().at(i).find(part), std::string::npos) << part;
  }
  EXPECT_EQ(server->sessions(), 2) << "the second connects anew";
}

TEST_F(CommunicationClient, SendOnlyTakesLeaveWithoutAReply) {
  auto server = serve({taking()});
  LqCommunicationManagerClnt client("");
  client.setSendOnly(true);
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.receivedMessage, nullptr);
  EXPECT_FALSE(client.network.IsConnected());
  EXPECT_EQ(server->messages().size(), 1U);
}

// --- faults ------------------------------------------------------------------------------------------------

TEST_F(CommunicationClient, WithoutAConnectionTheLogTellsWhy) {
  const std::string attachFailed =
      "0|" + kPrefix + "dllConnect|1-Failed to connect to the remote machine " + address_ + " Error ";
  LqCommunicationManagerClnt client("");
  {
    const oblog::Capture log(2);
    EXPECT_FALSE(exchange(client));  // nobody listens
    ASSERT_EQ(linesOf(log).size(), 2U);
    EXPECT_TRUE(linesOf(log)[0].starts_with(attachFailed)) << linesOf(log)[0];
    EXPECT_EQ(linesOf(log)[1], kConnectFailed);
  }
  auto server = serve({refusing("no such library here")});
  {
    const oblog::Capture log(2);
    EXPECT_FALSE(exchange(client));
    EXPECT_TRUE(hasLine(log, attachFailed));
    EXPECT_NE(linesOf(log)[0].find("no such library here"), std::string::npos);
  }
  const oblog::Capture log;
  client.setLocalHostName("");
  EXPECT_FALSE(exchange(client));
  client.setLocalHostName("host42");
  client.setLocalPlatformType(4294967295);
  EXPECT_FALSE(exchange(client));
  client.setLocalPlatformType(4);
  client.setRemotePlatformType(4294967295);
  EXPECT_FALSE(exchange(client));
  client.setRemotePlatformType(1);
  removeValue("Overhub", "sOHHOSTNAME");
  EXPECT_FALSE(exchange(client));
  EXPECT_EQ(linesOf(log), std::vector<std::string>(4, kConnectFailed));
  EXPECT_EQ(server->sessions(), 1);
}

TEST_F(CommunicationClient, AFailedExchangeLeavesAClientThatConnectsAgain) {
  auto server = serve({[](PlayedServer::Stage& stage) {  // closes without a word
                         stage.acceptAttach();
                         stage.takeMessage();
                       },
                       answering("<App.NoSuchClass/>"), answering(kReply)});
  LqCommunicationManagerClnt client("");
  for (const char* text : {"Connection to remote machine lost. Error:[",
                           "LqCommunicationManagerClnt::Failed to receive message ["}) {
    const oblog::Capture log(0);
    const oblog::Capture all;
    EXPECT_FALSE(exchange(client));
    EXPECT_TRUE(hasLine(all, "plain|" + kPrefix + "receiveXMLMessage|" + text));
    EXPECT_EQ(linesOf(all, kPrefix + "messageOperations"), std::vector<std::string>{kReceiveFailed});
    EXPECT_EQ(linesOf(log), std::vector<std::string>{kExchangeFailed});
    EXPECT_FALSE(client.network.IsConnected());
    EXPECT_EQ(client.receivedMessage, nullptr);
  }
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(server->sessions(), 3);
}

TEST_F(CommunicationClient, WithoutAMessageTheConnectionStaysOpenForTheNextExchange) {
  auto server = serve({answering(kReply)});
  LqCommunicationManagerClnt client("");
  const oblog::Capture log(2);
  EXPECT_FALSE(client.networkOperationsRequest());
  EXPECT_EQ(linesOf(log), (std::vector<std::string>{kSendFailed, kExchangeFailed}));
  EXPECT_TRUE(client.network.IsConnected());
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(server->sessions(), 1);
  client.disconnect();  // without a connection: nothing to do
}

}  // namespace
