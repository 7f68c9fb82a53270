// The application-message client: which handler answers a request and with what, and one exchange with the
// server in all its outcomes, with the texts that are this client's own.
#include "lqregistry/LqCommunicationManagerClnt.h"

#include "tests/support/product_fixture.h"

namespace {

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
int fail(std::string& payload) {
  payload += " could not be greeted";
  return 5;
}

int throwInTheMiddle(std::string& payload) {
  payload = "half an answer";
  throw std::runtime_error("no such door");
}
int throwANumber(std::string&) {
  throw 5;
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

// --- requests of the server --------------------------------------------------------------------------------

TEST_F(CommunicationClient, TheHandlerOfTheTypeMakesTheAnswer) {
  LqCommunicationManagerClnt client("");
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(7, &greet), 1);
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(-1, &fail), 1);
  const oblog::Capture log;
  EXPECT_EQ(dispatch(client, 7), "hello, world");
  EXPECT_EQ(dispatch(client, (std::int64_t{1} << 32) + 7), "hello, world") << "only the low 32 bits count";
  EXPECT_TRUE(linesOf(log).empty());
  EXPECT_EQ(dispatch(client, 4294967295), "world could not be greeted")
      << "what it wrote is sent all the same";
  EXPECT_EQ(linesOf(log), std::vector<std::string>{"0|" + kPrefix +
                                                   "serverRequestHandler|"
                                                   "Call Back function returned some error"});
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(7, &fail), 1);
  EXPECT_EQ(dispatch(client, 7), "world could not be greeted") << "the last handler of a type counts";
}

TEST_F(CommunicationClient, ARequestThatNoHandlerAnswersIsAnsweredWithTheReason) {
  LqCommunicationManagerClnt client("");
  LqCommunicationManagerClnt::registerCallBackFunction(8, &throwInTheMiddle);
  LqCommunicationManagerClnt::registerCallBackFunction(9, &throwANumber);
  LqCommunicationManagerClnt::registerCallBackFunction(10, nullptr);
  const char* const missing = "Callback function not implemented";
  const char* const threw = "Callback function ended with an exception";
  const struct {
    std::int64_t type;
    std::int64_t code;
    const char* text;
    const char* line;
  } cases[] = {
      {4294967303, 1, missing, "not implemented for [4294967303]"},
      {4294967304, 2, threw, "for [4294967304] ended with an exception: no such door"},
      {9, 2, threw, "for [9] ended with an exception"},
      {10, 1, missing, "not implemented for [10]"},
  };
  for (const auto& c : cases) {
    const oblog::Capture log;
    App::GenericResp refusal;
    EXPECT_EQ(refusal.unserialize(dispatch(client, c.type)), 0);
    EXPECT_EQ(refusal.errorCode, c.code);
    EXPECT_EQ(refusal.errorText.get(), c.text);
    EXPECT_EQ(linesOf(log),
              std::vector<std::string>{"0|" + kPrefix + "serverRequestHandler|Call Back function " + c.line});
  }
}

// --- a good exchange ---------------------------------------------------------------------------------------

TEST_F(CommunicationClient, AnExchangeAttachesSendsReceivesAndTakesLeaveAndNeedsNoId) {
  message_.messageType = 7;
  removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
  auto server = serve({answering(kReply)});
  const oblog::Capture log;
  LqCommunicationManagerClnt client("");
  EXPECT_TRUE(exchange(client));
  const auto* reply = messageAs<App::AppCommunicationMessageResp>(client.receivedMessage.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->payload.get(), "well received");
  EXPECT_FALSE(client.network.IsConnected());
  EXPECT_EQ(linesOf(log),
            (std::vector<std::string>{
                "10|" + kPrefix + "dllConnect|Remote HostName [" + address_ + "] , Local Host Name [host42]",
                "plain|" + kPrefix + "sendXMLMessage|Sent message [" +
                    std::to_string(App::AppCommunicationMessageReq::kTag) +
                    "] successfully to remote machine [" + address_ + "]",
                "plain|" + kPrefix + "receiveXMLMessage|Received message successfully from remote machine [" +
                    address_ + "]"}));
  for (const oblog::Line& line : log.Lines()) EXPECT_EQ(line.logId, 281908688U);
  EXPECT_EQ(server->message<App::AppCommunicationMessageReq>(0).messageType, 7);
  for (const char* part :
       {"library=\"sLNREGKEYMANAGER\"", "entry=\"sLPREGKEYMANAGER\"", "caller=\"machine42\""})
    EXPECT_NE(server->attachments().at(0).find(part), std::string::npos) << part;
}

TEST_F(CommunicationClient, EveryConnectionGoesToTheServerThatTheRegistryNamesByThen) {
  setValue("Machine", "nPLATFORMTYPE", "3");
  setValue("SOFTWARE/Velmor/Instance002/Machine", "sPHYSICALNAME", "another");
  EXPECT_EQ(LqCommunicationManagerClnt("Instance002").getLocalHostName(), "another");
  auto first = serve({answering(kReply)});
  LqCommunicationManagerClnt client("");
  EXPECT_EQ(client.getRemoteHostName(), "");
  EXPECT_EQ(client.getLocalPlatformType(), 2U);
  EXPECT_EQ(client.getRemotePlatformType(), 1U);
  client.setRemoteHostName("elsewhere");
  EXPECT_TRUE(exchange(client));
  EXPECT_NE(first->attachments().at(0).find("caller=\"overhub\""), std::string::npos);
  address_ = test_support::uniqueLoopbackAddress();
  setValue("Overhub", "sOHHOSTNAME", address_);
  auto second = serve({taking()});
  client.setSendOnly(true);
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.receivedMessage, nullptr);
  EXPECT_EQ(client.getRemoteHostName(), address_);
  EXPECT_EQ(second->messages().size(), 1U);
  EXPECT_FALSE(client.network.IsConnected());
}

// --- faults ------------------------------------------------------------------------------------------------

TEST_F(CommunicationClient, WithoutAConnectionTheLogTellsWhy) {
  LqCommunicationManagerClnt client("");
  {
    const oblog::Capture log(2);
    EXPECT_FALSE(exchange(client));  // nobody listens
    ASSERT_EQ(linesOf(log).size(), 2U);
    EXPECT_TRUE(hasLine(log, "0|" + kPrefix + "dllConnect|1-Failed to connect to the remote machine " +
                                 address_ + " Error "));
    EXPECT_EQ(linesOf(log)[1], kConnectFailed);
  }
  auto server = serve({});
  const oblog::Capture log;
  removeValue("Overhub", "sOHHOSTNAME");
  EXPECT_FALSE(exchange(client));
  EXPECT_EQ(linesOf(log), std::vector<std::string>{kConnectFailed});
  EXPECT_EQ(server->sessions(), 0);
}

TEST_F(CommunicationClient, AFailedExchangeLeavesAClientThatConnectsAgain) {
  auto server = serve({[](PlayedServer::Stage& stage) {  // closes without a word
                         stage.acceptAttach();
                         stage.takeMessage();
                       },
                       answering("<App.NoSuchClass/>"), answering(kReply)});
  LqCommunicationManagerClnt client("");
  {
    const oblog::Capture log(2);
    EXPECT_FALSE(client.networkOperationsRequest()) << "there is no message yet";
    EXPECT_EQ(linesOf(log), (std::vector<std::string>{kSendFailed, kExchangeFailed}));
    EXPECT_TRUE(client.network.IsConnected()) << "for the next exchange";
  }
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

}  // namespace
