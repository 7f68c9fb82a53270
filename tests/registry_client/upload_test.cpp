// Uploading the registry: the message on the wire, the server's verdicts, and what happens without an id, a
// registry or a server.
#include "platform/LQClient.h"
#include "platform/LqRegistryFile.h"
#include "registry_client/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

using test_support::PeerSession;

const std::string kSendTag = "LqRegistryManager::uploadRegistryKeysToServer";
const std::string kUploading = "Uploading Registry Keys for client [host42].";
const std::string kStarted = "3|" + kSendTag + "|" + kUploading;
const std::string kSucceeded =
    "error|" + kSendTag + "|" + kUploading + " Received Success Response from Server.";
const std::string kFailed = "error|" + kSendTag + "|" + kUploading + " Received failed Response from Server.";

std::string verdict(std::int64_t taskStatus) {
  return R"(<OBGui.RegistryTaskResp taskStatus=")" + std::to_string(taskStatus) + R"("/>)";
}

void closing(PlayedServer::Stage& stage) {
  stage.acceptAttach();
  stage.takeMessage();
}

class Upload : public ProductTest {
 protected:
  Upload() { join(); }
  PlayedServer serve(std::vector<PlayedServer::Script> scripts) const {
    return {address_, sessionKey_, std::move(scripts)};
  }
  void forgetClientId() { removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID"); }
};

TEST_F(Upload, TheWholeRegistryGoesToTheServerInOneMessage) {
  setValue("A/B", "sVALUE", "line\none");
  PlayedServer server = serve({answering(verdict(OBGui::kTaskSuccess))});
  LqRegistryManagerClnt client("");
  forgetClientId();  // a client that knows its id asks no more
  const oblog::Capture log;
  EXPECT_EQ(client.uploadKeys(), 0U);
  EXPECT_EQ(linesOf(log, "LqRegistryManager::"), (std::vector<std::string>{kStarted, kSucceeded}));

  OBGui::RegistryTaskResp expected;
  expected.taskStatus = 2;
  expected.client.edit().clientId = kClientId;
  EXPECT_EQ(client.enumerateClientKeysInfo("", expected.keys.edit()), 0U);
  EXPECT_GT(expected.keys->size(), 10U);
  EXPECT_TRUE(server.message<OBGui::RegistryTaskResp>(0).equals(expected)) << server.messages()[0];
  EXPECT_EQ(server.sessions(), 1);
}

TEST_F(Upload, OnlyAFailureTheServerReportsIsOne) {
  const struct {
    const char* name;
    PlayedServer::Script answer;
    unsigned result;
    std::vector<std::string> lines;
  } cases[] = {{"failure", answering(verdict(OBGui::kTaskFailed)), 3, {kStarted, kFailed}},
               {"another status", answering(verdict(2)), 0, {kStarted, kSucceeded}},
               {"no status", answering("<OBGui.RegistryTaskResp/>"), 0, {kStarted, kSucceeded}},
               {"another class", answering("<OBGui.RegistryTaskReq/>"), 0, {kStarted}},
               {"no reply", closing, 0, {kStarted}},
               {"attach refused", refusing("busy"), 0, {kStarted}},
               {"nobody there", {}, 0, {kStarted}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<PlayedServer> server;
    if (c.answer)
      server =
          std::make_unique<PlayedServer>(address_, sessionKey_, std::vector<PlayedServer::Script>{c.answer});
    LqRegistryManagerClnt client("");
    client.receivedMessage = std::make_unique<OBGui::RegistryTaskResp>();
    client.receivedMessage->unserialize(verdict(OBGui::kTaskFailed));  // of an earlier exchange
    const oblog::Capture log;
    EXPECT_EQ(client.uploadKeys(), c.result);
    EXPECT_EQ(linesOf(log, "LqRegistryManager::"), c.lines);
  }
}

TEST_F(Upload, TheIdIsSentNarrowedTo32Bits) {
  PlayedServer server = serve({answering(verdict(3)), answering(verdict(3)), answering(verdict(3))});
  const struct {
    std::uint64_t id;
    std::int64_t sent;
  } cases[] = {{0x7FFFFFFF, 2147483647}, {0x80000000, -2147483648}, {0x100000001, 1}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(LQClient::recordClient("client42", cases[i].id));
    EXPECT_EQ(LqRegistryManagerClnt("").uploadKeys(), 0U);
    EXPECT_EQ(server.message<OBGui::RegistryTaskResp>(i).client->clientId, cases[i].sent);
  }
}

TEST_F(Upload, AnEmptyListIsSentToo) {
  PlayedServer server = serve({answering(verdict(3))});
  LqRegistryManagerClnt client("");
  OBGui::RegistryTaskResp empty;
  empty.taskStatus = OBGui::kTaskUpload;
  empty.keys.edit();
  EXPECT_EQ(client.uploadRegistryKeysToServer(empty), 0U);
  EXPECT_TRUE(server.message<OBGui::RegistryTaskResp>(0).equals(empty));
}

TEST_F(Upload, WithoutAnIdOrARegistryNothingIsSent) {
  PlayedServer server = serve({});
  const auto expectFailure = [&](LqRegistryManagerClnt& client, const std::string& text) {
    const oblog::Capture log;
    EXPECT_EQ(client.uploadKeys(), 3U);
    EXPECT_EQ(linesOf(log, "LqRegistryManager").back(), "error|LqRegistryManagerClnt::uploadKeys|" + text);
  };
  const std::string unknown = "Failed to get client id for client[client42],Upload RegistryKeys failed";
  forgetClientId();
  LqRegistryManagerClnt client("");
  expectFailure(client, unknown);
  ASSERT_TRUE(LQClient::recordClient("client42", 0));
  expectFailure(client, unknown);
  removeValue("Hosts/host42", "sCLIENTNAME");
  expectFailure(client, "Failed to get client id for client[],Upload RegistryKeys failed");
  setValue("Hosts/host42", "sCLIENTNAME", "client42");
  ASSERT_TRUE(LQClient::recordClient("client42", 7));
  client.uploadKeys();
  EXPECT_EQ(client.clientId, 7U) << "an id that was found is kept";

  lqregistry::UseFile(dir_.path().string());  // a directory is no registry
  expectFailure(client, "Failed to Upload RegistryKeys to Server");
  EXPECT_EQ(server.sessions(), 0);
}

}  // namespace
