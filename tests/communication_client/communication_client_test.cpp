// The application-message client: which handler answers a request and with what, and its exchange with the
// server. Of the steps that it shares with the registry's client only the texts and the outcomes are its own.
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
  // What it wrote is sent all the same.
  EXPECT_EQ(dispatch(client, 4294967295), "world could not be greeted");
  EXPECT_EQ(linesOf(log), Lines{"0|" + kPrefix +
                                "serverRequestHandler|"
                                "Call Back function returned some error"});
  EXPECT_EQ(LqCommunicationManagerClnt::registerCallBackFunction(7, &fail), 1);
  EXPECT_EQ(dispatch(client, 7), "world could not be greeted") << "the last handler of a type counts";
}

TEST_F(CommunicationClient, ARequestThatNoHandlerAnswersIsAnsweredWithTheReason) {
  LqCommunicationManagerClnt client("");
  LqCommunicationManagerClnt::registerCallBackFunction(7, &greet);
  LqCommunicationManagerClnt::registerCallBackFunction(8, &throwInTheMiddle);
  LqCommunicationManagerClnt::registerCallBackFunction(9, &throwANumber);
  LqCommunicationManagerClnt::registerCallBackFunction(10, nullptr);
  const char* const missing = "Callback function not implemented";
  const char* const threw = "Callback function ended with an exception";
  const std::tuple<std::int64_t, std::int64_t, const char*, const char*> cases[] = {
      {4295032839, 1, missing, "not implemented for [4295032839]"},  // 7 by its low 16 bits only
      {4294967304, 2, threw, "for [4294967304] ended with an exception: no such door"},
      {9, 2, threw, "for [9] ended with an exception"},
      {10, 1, missing, "not implemented for [10]"},
  };
  for (const auto& [type, code, text, line] : cases) {
    const oblog::Capture log;
    App::GenericResp refusal;
    EXPECT_EQ(refusal.unserialize(dispatch(client, type)), 0);
    EXPECT_EQ(refusal.errorCode, code);
    EXPECT_EQ(refusal.errorText.get(), text);
    EXPECT_EQ(linesOf(log), Lines{"0|" + kPrefix + "serverRequestHandler|Call Back function " + line});
  }
}

// --- its exchange ------------------------------------------------------------------------------------------

TEST_F(CommunicationClient, AnExchangeNeedsNoIdAndGoesToTheServerThatTheRegistryNamesByThen) {
  setValue("SOFTWARE/Velmor/Instance002/Machine", "sPHYSICALNAME", "another");
  EXPECT_EQ(LqCommunicationManagerClnt("Instance002").getLocalHostName(), "another");
  message_.messageType = 7;
  removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID");
  auto server = serve({answering(kReply), taking()});
  const oblog::Capture log;
  LqCommunicationManagerClnt client("");
  EXPECT_EQ(client.getRemoteHostName(), "");
  EXPECT_TRUE(client.initialize() && client.getRemoteHostName() == address_);
  client.setRemoteHostName("elsewhere");
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(client.getLocalPlatformType(), kPlatformUnix);
  const auto* reply = messageAs<App::AppCommunicationMessageResp>(client.receivedMessage.get());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->payload.get(), "well received");
  EXPECT_EQ(
      linesOf(log),
      (Lines{"10|" + kPrefix + "dllConnect|Remote HostName [" + address_ + "] , Local Host Name [host42]",
             "plain|" + kPrefix + "sendXMLMessage|Sent message [" +
                 std::to_string(App::AppCommunicationMessageReq::kTag) +
                 "] successfully to remote machine [" + address_ + "]",
             "plain|" + kPrefix + "receiveXMLMessage|Received message successfully from remote machine [" +
                 address_ + "]"}));
  for (const oblog::Line& line : log.Lines()) EXPECT_EQ(line.logId, 281908688U);
  EXPECT_EQ(server->message<App::AppCommunicationMessageReq>(0).messageType, 7);
  EXPECT_TRUE(contains(server->attachments().at(0), "library=\"sLNREGKEYMANAGER\""));

  client.setSendOnly(true);
  EXPECT_TRUE(exchange(client));
  EXPECT_EQ(server->messages().size(), 2U);
  EXPECT_FALSE(client.network.IsConnected());
}

TEST_F(CommunicationClient, AFailedExchangeLeavesAClientThatConnectsAgain) {
  LqCommunicationManagerClnt client("");
  // What the log says at its default level, and whether there is a connection afterwards.
  const auto expectFailure = [&](const Lines& lines, bool isConnected = false) {
    const oblog::Capture log(2);
    EXPECT_FALSE(client.networkOperationsRequest());
    const Lines found = linesOf(log, kPrefix);
    ASSERT_EQ(found.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_TRUE(found[i].starts_with(lines[i])) << found[i];
    EXPECT_EQ(client.network.IsConnected(), isConnected);
  };
  const std::string receive = "plain|" + kPrefix + "receiveXMLMessage|";
  expectFailure(
      {"0|" + kPrefix + "dllConnect|1-Failed to connect to the remote machine " + address_ + " Error ",
       kConnectFailed});                                 // nobody listens
  auto server = serve({[](PlayedServer::Stage& stage) {  // closes without a word
                         stage.acceptAttach();
                         stage.takeMessage();
                       },
                       answering("<App.NoSuchClass/>"), answering("<App.KeyInfoList/>"),
                       answering("<LqEntities.Association/>")});
  expectFailure({kSendFailed, kExchangeFailed}, true);  // without a message
  const std::string sent = "plain|" + kPrefix + "sendXMLMessage|Sent";
  client.setXMLSendObj(&message_);
  expectFailure(
      {sent, receive + "Connection to remote machine lost. Error:[", kReceiveFailed, kExchangeFailed});
  expectFailure({sent, receive + "LqCommunicationManagerClnt::Failed to receive message [", kReceiveFailed,
                 kExchangeFailed});
  EXPECT_TRUE(exchange(client) && exchange(client)) << "any message of the server's is read";
  EXPECT_EQ(server->sessions(), 4);

  const oblog::Capture log;
  EXPECT_FALSE(client.messageOperationsRequest()) << "there is no connection";
  EXPECT_TRUE(hasLine(log, "plain|" + kPrefix + "sendXMLMessage|Failed to send message ["));
}

}  // namespace
