// The download pass: what it does with a reply, what it tells the server, and every way in which it can fail.
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kPassTag = "LqRegistryManagerClnt::downLoadAndUpdateClient";
const std::string kRepairTag = "downLoadAndUpdateClient";

class Download : public ProductTest {
 protected:
  Download() {
    join();
    EXPECT_TRUE(LQClient::recordClient("client42", kWideId));
  }
  // One pass against a server that answers with these keys; gives the acknowledgement that it got.
  OBGui::RegistryTaskResp passWith(const OBGui::KeyList& keys) { return passWith(batchText(keys)); }
  OBGui::RegistryTaskResp passWith(const std::string& reply) {
    auto server = serve({answering(reply), taking()});
    LqRegistryManagerClnt client("");
    EXPECT_EQ(client.downLoadAndUpdateClient(), 0U);
    EXPECT_EQ(client.receivedMessage, nullptr);
    EXPECT_FALSE(client.sendOnly);
    EXPECT_EQ(server->sessions(), 2);
    EXPECT_EQ(server->message<OBGui::RegistryTaskReq>(0).client->clientId, kWideId);
    auto acknowledgement = server->message<OBGui::RegistryTaskResp>(1);
    EXPECT_EQ(acknowledgement.client->clientId, kWideId);
    EXPECT_FALSE(acknowledgement.keys.isSet());
    return acknowledgement;
  }
  static OBGui::KeyList numbered(int count) {
    OBGui::KeyList keys;
    for (int i = 0; i < count; ++i)
      keys.push_back(record("Numbered", "sN" + std::to_string(i), std::to_string(i)));
    return keys;
  }
  static constexpr std::int64_t kWideId = 4294967338;  // both messages carry all of it
};

// --- what a pass does --------------------------------------------------------------------------------------

TEST_F(Download, APassAppliesCachesAndAcknowledges) {
  setValue("EventManager", "sGONE", "1");
  const std::string everyByte = test_support::everyByte();
  const auto acknowledgement =
      passWith({record("A", "sSET", "new"), record("A", everyByte, everyByte),
                removal("EventManager", "sGONE"), disabled("A", "sDISABLED", "1"), record("A", "Trace", "1"),
                record("A", "Trace_UNTIL", "1"), secretRecord("A", "sSECRET", "hunter2")});
  EXPECT_EQ(acknowledgement.taskStatus, OBGui::kTaskSuccess);
  EXPECT_EQ(valuesOf("A", {"sSET", everyByte, "Trace"}), "new " + everyByte + " -");
  EXPECT_EQ(valueOf("EventManager", "sGONE"), std::nullopt);
  EXPECT_EQ(valueOf("A", "sSECRET"), pstring("hunter2").getV8Password());

  // What was removed, or has expired, is left out; what is merely disabled stays.
  EXPECT_EQ(cachedNames(), (Lines{"sSET", everyByte, "sDISABLED", "sSECRET"}));
  EXPECT_EQ(readFile(cacheFile()).find("hunter2"), std::string::npos);
}

TEST_F(Download, TheCacheIsAlwaysWrittenAndHoldsAllOfTheReplyButWhatItRemoves) {
  EXPECT_EQ(passWith(OBGui::KeyList()).taskStatus, OBGui::kTaskSuccess);
  EXPECT_TRUE(cached().keys.isSet() && cached().keys->empty());

  OBGui::RegistryTaskResp reply;
  reply.taskStatus = 9;
  reply.client.edit().clientId = 7;
  OBGui::RegistryKeyInfo odd = record("EventManager", "dOBLOGDIR", "/elsewhere");
  odd.deleteFlag = 2;  // only 1 removes: no repair
  odd.association.edit().id = 5;
  reply.keys = OBGui::KeyList{odd, secretRecord("A", "sSECRET", "hunter2")};
  const OBGui::RegistryTaskResp expected = reply;
  reply.keys.edit().push_back(removal("A", "sGONE"));
  std::string text;
  ASSERT_EQ(reply.serialize(text, true), 0);
  for (int pass = 1; pass <= 2; ++pass) {  // the second one changes nothing
    writeFile(cacheFile(), "<OBGui.RegistryTaskResp/>");
    passWith(text);
    EXPECT_TRUE(cached().equals(expected)) << pass << readFile(cacheFile());
    EXPECT_EQ(valueOf("EventManager", "dOBLOGDIR"), "/elsewhere");
  }
}

TEST_F(Download, ACacheWithMoreRecordsThanTheReplyIsKept) {
  passWith(numbered(6));
  auto fewer = numbered(4);
  fewer[0].value = "changed";
  fewer.push_back(removal("EventManager", "dOBLOGDIR"));
  const oblog::Capture log;
  EXPECT_EQ(passWith(fewer).taskStatus, OBGui::kTaskSuccess);
  EXPECT_EQ(valueOf("Numbered", "sN0"), "changed") << "the registry is updated all the same";
  EXPECT_EQ(cachedNames().size(), 6U);
  EXPECT_EQ(valueOf("EventManager", "dOBLOGDIR"), std::nullopt) << "no repair either";
  EXPECT_TRUE(linesOf(log, kRepairTag).empty());

  fewer.push_back(record("A", "sSIXTH", "1"));
  passWith(fewer);
  EXPECT_EQ(cachedNames().size(), 5U) << "as many records as the cache holds refresh it";
}

TEST_F(Download, ACacheThatCannotBeReadIsKept) {
  for (const char* text : {"<OBGui.RegistryTaskResp><keys>", "<OBGui.RegistryTaskReq/>", " "}) {
    writeFile(cacheFile(), text);
    EXPECT_EQ(passWith({record("A", "sSET", text), removal("EventManager", "dOBLOGDIR")}).taskStatus,
              OBGui::kTaskSuccess);
    EXPECT_EQ(readFile(cacheFile()), text);
    EXPECT_EQ(valueOf("A", "sSET"), text);
  }
}

TEST_F(Download, SecretsThatCannotBeProtectedLeaveTheCacheAsItWas) {
  passWith(numbered(1));
  const std::string before = readFile(cacheFile());
  pstring::UseKeyFile(dir_ / "no/such/folder");
  const oblog::Capture log;
  EXPECT_EQ(passWith({secretRecord("A", "sSECRET", "hunter2")}).taskStatus, OBGui::kTaskFailed);
  EXPECT_EQ(readFile(cacheFile()), before);
  EXPECT_TRUE(hasLine(log, "error|" + kPassTag + "|The Additional Settings cache is left as it was"));
}

// --- the log directory -------------------------------------------------------------------------------------

TEST_F(Download, ARemovedLogDirectoryEndsAsTheDefaultOneWhereThereIsAHome) {
  const Lines fetched = {
      "plain|downLoadAndUpdateClient| Fetched dVELMORHOME regKey from client's registry :: /opt/x"};
  const std::string place = "dOBLOGDIR key at client's registry with default path :: /opt/x/Log_Files";
  // The home, as what the directory is removed, what it is afterwards, and the last line.
  const std::tuple<std::optional<std::string>, const char*, std::optional<std::string>, std::string> cases[] =
      {{"/opt/x/", "STRING", "/opt/x/Log_Files",
        "plain|downLoadAndUpdateClient| dOBLOGDIR key added successfully at client's registry with default "
        "path :: "
        "/opt/x/Log_Files"},
       {"/opt/x", "KEY", "/elsewhere", "error|downLoadAndUpdateClient|  Got issue while adding " + place},
       {"", "STRING", {}, "error|downLoadAndUpdateClient|Cannot determine Velmor Home folder"},
       {{}, "STRING", {}, "error|downLoadAndUpdateClient|Cannot determine Velmor Home folder"}};
  for (const auto& [home, type, directory, line] : cases) {
    setValue("EventManager", "dOBLOGDIR", "/elsewhere");
    setValue("Base", "dVELMORHOME", home.value_or(""));
    if (!home) removeValue("Base", "dVELMORHOME");
    const oblog::Capture log;
    EXPECT_EQ(passWith({removal("EventManager", "dOBLOGDIR", type), record("A", "sSET", "1")}).taskStatus,
              OBGui::kTaskSuccess);
    EXPECT_EQ(valueOf("EventManager", "dOBLOGDIR"), directory);
    EXPECT_EQ(cachedNames(), Lines{"sSET"});
    Lines lines = home.value_or("").empty() ? Lines() : fetched;
    lines.push_back(line);
    EXPECT_EQ(linesOf(log, kRepairTag), lines);
  }
}

TEST_F(Download, OnlyTheExactNameMarkedForRemovalIsRepaired) {
  OBGui::RegistryKeyInfo unmarked = record("Other", "dOBLOGDIR", "/elsewhere");
  unmarked.deleteFlag.clear();
  setValue("EventManager", "dobLOGDIR", "/elsewhere");
  const oblog::Capture log;
  passWith(
      {removal("EventManager", "dobLOGDIR"), disabled("EventManager", "dOBLOGDIR", "/elsewhere"), unmarked});
  EXPECT_TRUE(linesOf(log, kRepairTag).empty());
  EXPECT_EQ(valueOf("EventManager", "dobLOGDIR"), std::nullopt);
  EXPECT_EQ(cachedNames(), (Lines{"dOBLOGDIR", "dOBLOGDIR"}));
}

// --- failures ----------------------------------------------------------------------------------------------

TEST_F(Download, WithoutAUsableReplyNothingChanges) {
  for (const bool isAnotherClass : {false, true}) {
    auto server = serve({isAnotherClass ? answering("<OBGui.RegistryTaskReq/>") : refusing("not you")});
    LqRegistryManagerClnt client("");
    const oblog::Capture log;
    EXPECT_EQ(client.downLoadAndUpdateClient(), 3U);
    EXPECT_EQ(client.receivedMessage != nullptr, isAnotherClass);
    EXPECT_TRUE(linesOf(log, kPassTag).empty());
    EXPECT_EQ(server->sessions(), 1) << "nothing is acknowledged";
    EXPECT_FALSE(std::filesystem::exists(cacheFile()));
  }
}

TEST_F(Download, ABatchThatTheHostDeclinesIsNeitherAppliedNorAcknowledged) {
  CLqNetwork::SetObserver([](const CLqNetwork::WireEvent& event) {
    if (messageAs<OBGui::RegistryTaskResp>(event.message) != nullptr && event.decline != nullptr)
      *event.decline = "held back";
  });
  auto server = serve({answering(batchText({record("A", "sSET", "new")}))});
  EXPECT_EQ(LqRegistryManagerClnt("").downLoadAndUpdateClient(), 3U);
  CLqNetwork::SetObserver({});
  EXPECT_EQ(server->sessions(), 1);
  EXPECT_EQ(valueOf("A", "sSET"), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(cacheFile()));
}

TEST_F(Download, AnUnknownClientAsksForNothing) {
  auto server = serve({});
  removeValue("Hosts/host42", "sCLIENTNAME");
  LqRegistryManagerClnt client("");
  const oblog::Capture log;
  EXPECT_EQ(client.downLoadAndUpdateClient(), 3U);
  EXPECT_EQ(linesOf(log), Lines{"error|" + kPassTag + "|Failed to get client id for client[]"});
  EXPECT_EQ(server->sessions(), 0);
  setValue("Hosts/host42", "sCLIENTNAME", "client42");
  EXPECT_EQ(client.downLoadAndUpdateClient(), 3U) << "the platform types are not known yet";
  EXPECT_EQ(client.clientId, static_cast<std::uint64_t>(kWideId)) << "but the id is, from now on";
}

TEST_F(Download, AnAcknowledgementThatCannotBeSentIsOnlyReported) {
  auto server = serve({answering(batchText(numbered(2))), refusing("busy")});
  LqRegistryManagerClnt client("");
  const oblog::Capture log;
  EXPECT_EQ(client.downLoadAndUpdateClient(), 0U);
  EXPECT_FALSE(client.sendOnly);
  EXPECT_EQ(valueOf("Numbered", "sN1"), "1");
  EXPECT_EQ(cachedNames().size(), 2U);
  EXPECT_EQ(linesOf(log, kPassTag),
            Lines{"error|" + kPassTag + "|Failed to send the response to the server for client[client42]"});
}

// --- the static list ---------------------------------------------------------------------------------------

TEST_F(Download, TheStaticListReplacesWhatWasThere) {
  auto server = serve({answering(batchText(numbered(3))), answering("<OBGui.RegistryTaskReq/>")});
  LqRegistryManagerClnt client("");
  OBGui::KeyList keys = numbered(5);
  EXPECT_EQ(client.downLoadRegKeysFromServer(keys, 0, "", ""), 0);
  server->message<OBGui::RegistryStaticKeyReq>(0);
  EXPECT_EQ(client.downLoadRegKeysFromServer(keys, 0, "", ""), 3) << "another class";
  EXPECT_EQ(keys.size(), 3U);
  EXPECT_EQ(valueOf("Numbered", "sN0"), std::nullopt) << "nothing is applied";
}

}  // namespace
