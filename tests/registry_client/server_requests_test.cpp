// What the server asks of this client: a pushed batch and what is answered to it, a fetch of named values and
// what goes back.
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kFetch = "LqRegistryManager::getRequestedKeys|";
const std::string kSend = "LqRegistryManager::sendRequestedKeys|";
const std::string kSomeFailed = "plain|" + kFetch + "Unable to fetch one or more keys in the list";

App::RegistryKeyInfo wanted(const std::string& keyPath, const std::string& valueName) {
  App::RegistryKeyInfo key;
  key.keyPath = keyPath;
  key.valueName = valueName;
  key.valueType = std::string("STRING");
  return key;
}

class ServerRequests : public ProductTest {
 protected:
  ServerRequests() { join(); }
};

// --- a pushed batch ----------------------------------------------------------------------------------------

TEST_F(ServerRequests, APushedBatchIsAppliedAndTheOutcomeAnswered) {
  ASSERT_TRUE(LQClient::recordClient("client42", 0x380000000));
  LqRegistryManagerClnt client("");
  client.clientId = 0;  // looked up when it is needed
  setValue("A", "sGONE", "1");
  const auto push = [&](const OBGui::KeyList& keys) {
    OBGui::RegistryTaskResp request;
    request.client.edit().clientId = 7;  // whatever it says, the answer is this client's
    request.keys = keys;
    EXPECT_EQ(client.serverRequestHandler(request), 1U);
    EXPECT_EQ(client.sendMessage, &client.serverRequest);
    EXPECT_TRUE(client.serverRequest.keys.isSet() && client.serverRequest.keys->empty());
    EXPECT_EQ(client.serverRequest.client->clientId, -2147483648);
    return client.serverRequest.taskStatus.get();
  };
  EXPECT_EQ(push({record("A", "sVALUE", "1"), removal("A", "sGONE")}), 3);
  EXPECT_EQ(valuesOf("A", {"sVALUE", "sGONE"}), "1 -");
  EXPECT_EQ(push({record("Clients", "Other", "", "KEY"), record("A", "sOTHER", "2")}), 1);
  EXPECT_EQ(valueOf("A", "sOTHER"), "2") << "every record is tried";
  EXPECT_EQ(push({}), 3) << "an earlier failure leaves nothing behind";
}

TEST_F(ServerRequests, WithoutAnIdAPushIsNeitherAppliedNorAnswered) {
  setValue("SOFTWARE/Velmor/Clients/client42", "nCLIENTID", "0");  // which is none
  LqRegistryManagerClnt client("");
  OBGui::RegistryTaskResp request;
  request.keys.edit().push_back(record("A", "sVALUE", "1"));
  const oblog::Capture log;
  EXPECT_EQ(client.serverRequestHandler(request), 0U);
  EXPECT_EQ(linesOf(log), Lines{"error|LqRegistryManagerClnt::serverRequestHandler|"
                                "Failed to get client id for client[client42]"});
  EXPECT_EQ(client.sendMessage, nullptr);
  EXPECT_EQ(valueOf("A", "sVALUE"), std::nullopt);
}

// --- reading what is fetched -------------------------------------------------------------------------------

TEST_F(ServerRequests, AFetchFillsWhatItCanAndTellsTheRestApart) {
  setValue("A", "sVALUE", "found");
  setValue("A", "sLONG", std::string(1024, 'v'));
  setValue("~", "sOFTHEROOT", "root");
  // Each read leaves room for no more than it needed, so the root's value, the shorter one, comes last.
  App::KeyList keys{wanted("A", "sVALUE"), wanted("A", "sVALUE"),   wanted("A", "sVALUE"),
                    wanted("A", "sVALUE"), wanted("B", "sVALUE"),   wanted("A", "sNONE"),
                    wanted("A", "sLONG"),  wanted("", "sOFTHEROOT")};
  keys[1].valueType.clear();
  keys[2].keyPath.clear();
  keys[3].valueName.clear();
  keys[3].value = keys[4].value = std::string("as it was");
  LqRegistryManagerClnt client("");
  const oblog::Capture log;
  client.getRequestedKeys(&keys);
  const std::string notSet = "10|" + kFetch + "One or more key not set properly";
  EXPECT_EQ(linesOf(log), (Lines{"10|" + kFetch + "set value = found for key = sVALUE", notSet, notSet,
                                 notSet, "10|" + kFetch + "failed to fetch key sVALUE at ~B",
                                 "10|" + kFetch + "bad registry key sVALUE",
                                 "10|" + kFetch + "failed to fetch key sNONE at ~A",
                                 "10|" + kFetch + "bad field ~A for registry key sNONE",
                                 "10|" + kFetch + "failed to fetch key sLONG at ~A",
                                 "10|" + kFetch + "Unable to fetch key sLONG from path ~A",
                                 "10|" + kFetch + "set value = root for key = sOFTHEROOT", kSomeFailed}));
  EXPECT_EQ(keys[0].value.get(), "found");
  for (const std::size_t unset : {1U, 2U, 5U, 6U}) EXPECT_FALSE(keys[unset].value.isSet());
  for (const std::size_t before : {3U, 4U}) EXPECT_EQ(keys[before].value.get(), "as it was");
  EXPECT_EQ(keys[7].value.get(), "root");
}

TEST_F(ServerRequests, TheFetchStatusIsThatOfTheLastFailureAndStartsAnew) {
  setValue("A", "sVALUE", "found");
  LqRegistryManagerClnt client("");
  const std::pair<App::KeyList, std::int32_t> cases[] = {
      {{wanted("A", "sNONE"), wanted("B", "x"), wanted("A", "sVALUE")}, 6},
      {{wanted("B", "x"), wanted("A", "sNONE")}, 7},
      {{wanted("B", "x"), wanted("A", std::string(1025, 'n'))}, 2},
      {{wanted("A", "sVALUE")}, 0}};
  for (auto [keys, status] : cases) {
    client.getRequestedKeys(&keys);
    EXPECT_EQ(client.regStatus, status);
  }
  client.regStatus = kRegStatusWriteFailed;
  const oblog::Capture log;
  client.getRequestedKeys(nullptr);
  EXPECT_EQ(linesOf(log), Lines{"10|" + kFetch + "Requested key list not set"});
  EXPECT_EQ(client.regStatus, 0);
}

TEST_F(ServerRequests, AValueHasOnlyAsMuchRoomAsTheOnesBeforeItLeft) {
  const std::string longest(1023, 'v');
  setValue("A", "sLONGEST", longest);
  setValue("A", "sNUL", std::string("x\0y", 3));
  setValue("A", "sFOUR", "abcd");
  App::KeyList keys{wanted("A", "sLONGEST"), wanted("A", "sNUL"), wanted("A", "sFOUR")};
  LqRegistryManagerClnt client("");
  client.getRequestedKeys(&keys);
  EXPECT_EQ(keys[0].value.get(), longest);
  EXPECT_EQ(keys[1].value.get(), "x");
  EXPECT_FALSE(keys[2].value.isSet());
  EXPECT_EQ(client.regStatus, 2);
}

// --- sending it back ---------------------------------------------------------------------------------------

TEST_F(ServerRequests, AnAnswerEndsTheSessionWhetherItCouldBeSentOrNot) {
  const PlayedServer::Script fetcher = [](PlayedServer::Stage& stage) {
    if (!stage.acceptAttach()) return;
    stage.peer.writeFrame(PeerSession::kGoodbye);  // is read once the answer has been sent
    stage.takeMessage();
    stage.peer.waitForClose();
  };
  App::RegisterSubsystem();
  PlayedServer server(address_, sessionKey_, {fetcher, fetcher});
  LqRegistryManagerClnt client("");
  App::KeyList keys{wanted("A", "sVALUE")};
  keys[0].value = "found";
  const std::string notSet = "error|" + kSend + "Session or keys to send not set. Failed to send.";
  const std::string failed = "plain|" + kSend + "Failed to send message [" +
                             std::to_string(App::FetchClientRegistry::kTag) + "], Error [";
  const App::KeyList good = keys;
  for (const bool fits : {true, false}) {
    // What cannot be opened cannot be told.
    if (!fits) pstring::fromStoredText("V8:" + std::string(40, 'A'), keys[0].encryptedValue.edit());
    ASSERT_TRUE(client.dllConnect());
    const oblog::Capture log;
    client.sendRequestedKeys(nullptr, &keys);
    client.sendRequestedKeys(client.network.get(), nullptr);
    EXPECT_EQ(linesOf(log), (Lines{notSet, notSet}));
    EXPECT_TRUE(client.network->IsConnected());
    client.sendRequestedKeys(client.network.get(), &keys);
    EXPECT_EQ(linesOf(log).size(), fits ? 2U : 3U);
    EXPECT_EQ(hasLine(log, failed), !fits);
    EXPECT_FALSE(client.network->IsConnected());
    EXPECT_EQ(client.sendMessage, nullptr);
  }
  App::FetchClientRegistry sent;
  sent.keyInfo.edit().keys = good;
  EXPECT_TRUE(server.message<App::FetchClientRegistry>(0).equals(sent));
  EXPECT_EQ(server.messages().size(), 1U);
}

}  // namespace
