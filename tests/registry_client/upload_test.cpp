// Uploading the registry: the message on the wire, the server's verdicts, and what happens without an id, a
// registry or a server.
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kSendTag = "LqRegistryManager::uploadRegistryKeysToServer";
const std::string kUploading = "Uploading Registry Keys for client [host42].";
const std::string kStarted = "3|" + kSendTag + "|" + kUploading;
const std::string kSucceeded =
    "error|" + kSendTag + "|" + kUploading + " Received Success Response from Server.";
const std::string kFailed = "error|" + kSendTag + "|" + kUploading + " Received failed Response from Server.";

std::string verdict(std::int64_t taskStatus) {
  return R"(<OBGui.RegistryTaskResp taskStatus=")" + std::to_string(taskStatus) + R"("/>)";
}

class Upload : public ProductTest {
 protected:
  Upload() { join(); }
  void forgetClientId() { removeValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID"); }
};

TEST_F(Upload, TheWholeRegistryGoesToTheServerInOneMessage) {
  setValue("A/B", "sVALUE", "line\none");
  PlayedServer server(address_, sessionKey_,
                      {answering(verdict(OBGui::kTaskSuccess)), answering(verdict(OBGui::kTaskSuccess))});
  ASSERT_TRUE(LQClient::recordClient("client42", 0x380000001));
  LqRegistryManagerClnt client("");
  client.clientId = 0;
  EXPECT_TRUE(client.uploadKeys() == 0U && client.clientId == 0x380000001) << "looked up, and kept";
  forgetClientId();  // a client that knows its id asks no more
  const oblog::Capture log;
  EXPECT_EQ(client.uploadKeys(), 0U);
  EXPECT_EQ(linesOf(log, "LqRegistryManager::"), (Lines{kStarted, kSucceeded}));

  OBGui::RegistryTaskResp expected;
  expected.taskStatus = 2;
  expected.client.edit().clientId = -2147483647;  // narrowed to 32 bits
  EXPECT_EQ(client.enumerateClientKeysInfo("", expected.keys.edit()), 0U);
  EXPECT_GT(expected.keys->size(), 10U);
  EXPECT_TRUE(server.message<OBGui::RegistryTaskResp>(1).equals(expected)) << server.messages()[1];
  EXPECT_EQ(server.sessions(), 2);
}

TEST_F(Upload, OnlyAFailureTheServerReportsIsOne) {
  const std::tuple<const char*, PlayedServer::Script, unsigned, Lines> cases[] = {
      {"failure", answering(verdict(OBGui::kTaskFailed)), 3, {kStarted, kFailed}},
      {"another status", answering(verdict(2)), 0, {kStarted, kSucceeded}},
      {"no status", answering("<OBGui.RegistryTaskResp/>"), 0, {kStarted, kSucceeded}},
      {"another class", answering("<OBGui.RegistryTaskReq/>"), 0, {kStarted}},
      {"no reply", refusing("busy"), 0, {kStarted}}};
  for (const auto& [name, answer, result, lines] : cases) {
    SCOPED_TRACE(name);
    const PlayedServer server(address_, sessionKey_, {answer});
    LqRegistryManagerClnt client("");
    client.receivedMessage = std::make_unique<OBGui::RegistryTaskResp>();
    client.receivedMessage->unserialize(verdict(OBGui::kTaskFailed));  // of an earlier exchange
    const oblog::Capture log;
    EXPECT_EQ(client.uploadKeys(), result);
    EXPECT_EQ(linesOf(log, "LqRegistryManager::"), lines);
  }
}

TEST_F(Upload, WithoutAnIdOrARegistryNothingIsSent) {
  const PlayedServer server(address_, sessionKey_, {});
  LqRegistryManagerClnt client("");
  const auto expectFailure = [&](const std::string& text) {
    const oblog::Capture log;
    EXPECT_EQ(client.uploadKeys(), 3U);
    EXPECT_EQ(linesOf(log, "LqRegistryManager").back(), "error|LqRegistryManagerClnt::uploadKeys|" + text);
  };
  forgetClientId();
  client.clientId = 0;
  expectFailure("Failed to get client id for client[client42],Upload RegistryKeys failed");
  lqregistry::UseFile(dir_.path().string());  // a directory is no registry
  expectFailure("Failed to Upload RegistryKeys to Server");
  EXPECT_EQ(server.sessions(), 0);
}

}  // namespace
