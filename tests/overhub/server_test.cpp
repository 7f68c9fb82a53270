// The running server, with this process as its clients over the wire.
#include "overhub/server/server.h"

#include <sys/resource.h>

#include "tests/overhub/overhub_fixture.h"
#include "tests/support/scripted_peer.h"

namespace {

using OverhubServerTest = OverhubTest;

OBGui::RegistryTaskResp acknowledgement(std::int64_t clientId, std::int64_t taskStatus) {
  OBGui::RegistryTaskResp response;
  response.client.edit().clientId = clientId;
  response.taskStatus = taskStatus;
  return response;
}

// The whole exchange of a synchronisation: batch with its secret in clear, static list, acknowledgements.
TEST_F(OverhubServerTest, ServesBatchAndStaticListAndRecordsAcknowledgements) {
  expectOk({"add-client", "web-1", "--id", "7"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "10"});
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  const auto server = serve();
  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  std::string refusal;
  const auto batch = ask(network, requestOf(7), refusal);
  EXPECT_TRUE(batch.taskStatus == OBGui::kTaskSuccess && batch.client->clientId == 7) << refusal;
  EXPECT_TRUE(batch.keys->size() == 2 && batch.keys->at(0).value.get() == "10" &&
              batch.keys->at(1).encryptedValue->reveal() == "sesame");

  const auto none = ask(network, OBGui::RegistryStaticKeyReq(), refusal);
  EXPECT_TRUE(refusal.empty() && none.keys->empty() && none.taskStatus == OBGui::kTaskSuccess) << refusal;
  // The store is asked anew each time.
  expectOk({"set", "@static", "p", "n", "v"});
  EXPECT_EQ(ask(network, OBGui::RegistryStaticKeyReq(), refusal).keys->size(), 1U);
  expectOk({"unset", "web-1", "~/Proxy", "sPW"});
  const auto next = ask(network, requestOf(7), refusal);  // never shorter than what the client has
  EXPECT_TRUE(next.keys->size() == 2 && next.keys->at(0).valueName.get() == "sPW" &&
              next.keys->at(0).deleteFlag == 1 && next.keys->at(1).value.get() == "10");

  send(network, acknowledgement(7, OBGui::kTaskFailed));
  send(network, acknowledgement(7, OBGui::kTaskSuccess));
  leave(network);
  const std::string acks = outOf(overhub({"acks", "web-1"}));
  const std::size_t failed = acks.find("web-1    7       1  failed\n");
  const std::size_t applied = acks.find("web-1    7       3  applied\n");
  EXPECT_TRUE(failed < applied && applied != std::string::npos) << acks;
  expectOk({"add-client", "quiet"});
  const auto newest = overhub({"acks", "--limit", "1"});
  EXPECT_EQ(outOf(overhub({"acks", "--limit", "2"})), acks);
  expectErr(newest, 0, {"there are older acknowledgements"});
  EXPECT_TRUE(contains(newest.out, "applied") && !contains(newest.out, "failed")) << newest.out;
  expectOut(overhub({"clients"}), 0,
            {"web-1   7  127.0.0.1        2  just now   applied               just now"});
  EXPECT_EQ(server->stop(), 0);
  EXPECT_TRUE(contains(server->output(), "web-1 on machine1: OBGui.RegistryTaskReq: 2 records"));
  for (const char* const absent : {"sesame", "cut off", "cannot be let in", "client web-1: "})
    EXPECT_FALSE(contains(server->output(), absent)) << absent;
}

// Who is not let in, and hears why.
TEST_F(OverhubServerTest, RefusesStrangersAndUnknownServices) {
  for (const std::string client : {"web-1", "keyless", "gone"}) expectOk({"add-client", client});
  meddle("UPDATE clients SET session_key = 'V8:another key''s' WHERE name = 'keyless'");
  const auto server = serve();
  const std::string goneKey = keyOf("gone");
  {
    become("gone");
    CLqNetwork network;
    EXPECT_FALSE(attach(network).IsError());
    expectOk({"remove-client", "gone"});
    std::string refusal;
    ask(network, requestOf(5), refusal);
    EXPECT_TRUE(contains(refusal, "there is no client \"gone\""))
        << "a session that it still has gets it nothing";
  }
  for (const std::string name : {"web-1", "keyless", "gone", "nobody", "../web-1", "@static"}) {
    become(name, name == "web-1" ? std::string(64, 'a') : name == "gone" ? goneKey : keyOf("web-1"));
    CLqNetwork network;
    EXPECT_EQ(attach(network).GetCode(), kLqErrHandshake) << name;
  }
  EXPECT_TRUE(contains(server->output(),
                       "client keyless cannot be let in: the session key of keyless was "
                       "protected with another key than " +
                           data_ + "/secret.key; put the right one back"))
      << server->output();
  become("web-1");
  CLqNetwork network;
  const CWmError refused = attach(network, kLibrary, "sLPOTHER");
  EXPECT_EQ(refused.GetCode(), kLqErrAttachRefused);
  EXPECT_TRUE(contains(refused.AsString(), "sLNREGKEYMANAGER/sLPOTHER")) << refused.AsString();
  EXPECT_FALSE(contains(server->output(), "no session with")) << "strangers do not fill the log";
}

// A request that cannot be served gets a reason, and the session goes on.
TEST_F(OverhubServerTest, DeclinesWhatItCannotServe) {
  for (const char* const client : {"web-1", "web-2"}) expectOk({"add-client", client});
  const auto server = serve();
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  become("web-1");
  CLqNetwork network;
  for (const std::string table : {"contacts", "acknowledgements"})
    meddle("ALTER TABLE " + table + " RENAME TO no_" + table);
  ASSERT_FALSE(attach(network).IsError());
  EXPECT_TRUE(server->waitForOutput("client web-1: " + storeFile() + ": "));
  std::string refusal;
  ask(network, requestOf(3), refusal);
  EXPECT_TRUE(
      contains(refusal, "cannot hand out the batch of web-1 now; its log tells why, come again later"));
  meddle("ALTER TABLE no_contacts RENAME TO contacts");
  const std::pair<std::unique_ptr<CNMessageBase>, const char*> cases[] = {
      // web-2's id, not web-1's: the batch of another client, with its secrets
      {std::make_unique<OBGui::RegistryTaskReq>(requestOf(4)), "unknown client id 4"},
      {std::make_unique<OBGui::RegistryTaskReq>(), "unknown client id 0"},
      {std::make_unique<OBGui::RegistryKeyInfo>(), "OBGui.RegistryKeyInfo is not handled"},
      {std::make_unique<OBGui::RegistryTaskResp>(acknowledgement(3, 5)), "task status 5"},
      {std::make_unique<OBGui::RegistryTaskResp>(acknowledgement(3, 3)), "cannot record the acknowledgement"},
  };
  for (const auto& [message, reason] : cases) {
    ask(network, *message, refusal);
    EXPECT_TRUE(contains(refusal, reason)) << refusal;
    EXPECT_TRUE(server->waitForOutput(reason)) << "not in the log";
  }
  EXPECT_TRUE(server->waitForOutput(storeFile() + ": no such table: acknowledgements")) << server->output();
  meddle("ALTER TABLE no_acknowledgements RENAME TO acknowledgements");
  EXPECT_EQ(outOf(overhub({"clients", "web-1"})).find("applied"), std::string::npos) << "half recorded";

  meddle("UPDATE settings SET secret = 'V8:another key''s' WHERE name = 'sPW'");
  ask(network, requestOf(3), refusal);
  EXPECT_TRUE(contains(refusal, "~/Proxy sPW was protected with another key; set it anew")) << refusal;
  EXPECT_TRUE(server->waitForOutput("sPW was protected with another key")) << server->output();
  ASSERT_EQ(shell("echo sesame | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret").exitCode, 0);
  EXPECT_EQ(ask(network, requestOf(3), refusal).keys->size(), 1U) << refusal;
  send(network, acknowledgement(3, OBGui::kTaskSuccess));
  leave(network);
  expectOut(overhub({"clients", "web-1"}), 0, {"applied"});
}

// One client's session, or strangers' silence and noise, must hold up nobody else.
TEST_F(OverhubServerTest, ServesManyAtOnceThroughSilenceAndNoise) {
  constexpr std::size_t kSessions = 12;
  expectOk({"add-client", "web-1"});
  expectOk({"add-client", "web-2"});
  for (const std::string client : {"web-1", "web-2"}) expectOk({"set", client, "p", "n", client});
  const auto server = serve();
  const std::vector<PlainSocket> strangers(200);
  for (std::size_t i = 0; i < strangers.size(); ++i) {
    ASSERT_TRUE(strangers[i].connectTo(address_, i % 2 == 0 ? 8400 : 8402));
    if (i % 4 == 0) strangers[i].send("GET / HTTP/1.1\r\n\r\n");
  }

  // All have asked before the first answer is read.
  std::vector<CLqNetwork> sessions(kSessions);
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    become(i % 2 == 0 ? "web-1" : "web-2");
    ASSERT_FALSE(attach(sessions[i]).IsError());
    send(sessions[i], requestOf(i % 2 == 0 ? 3 : 4));
  }
  std::string refusal;
  for (std::size_t i = sessions.size(); i-- > 0;) {
    const auto batch = receive(sessions[i], refusal);
    ASSERT_EQ(batch.keys->size(), 1U) << refusal;
    EXPECT_EQ(batch.keys.get()[0].value.get(), i % 2 == 0 ? "web-1" : "web-2");
  }
  for (CLqNetwork& session : sessions) leave(session);
  EXPECT_EQ(server->stop(), 0);
}

// Whichever of them a client asks, and wherever it acknowledges.
TEST_F(OverhubServerTest, TwoServersOverOneStoreBothAnswer) {
  expectOk({"add-client", "web-1"});
  expectOk({"set", "web-1", "p", "n", "v"});
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 100;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto first = serve();
  prlimit(first->process(), RLIMIT_NOFILE, nullptr, &limit);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max) << "as many clients as the system allows";
  expectErr(overhub({"serve", "--listen", address_}), 1, {"--listen and --ports name other addresses"});
  std::string otherAddress = std::exchange(address_, uniqueLoopbackAddress());
  const auto second = serve();

  become("web-1");
  for (int pass = 0; pass < 2; ++pass) {
    std::string refusal;
    CLqNetwork asking;
    ASSERT_FALSE(attach(asking).IsError());
    EXPECT_EQ(ask(asking, requestOf(3), refusal).keys->size(), 1U) << refusal;
    leave(asking);
    std::swap(address_, otherAddress);
    CLqNetwork acknowledging;
    ASSERT_FALSE(attach(acknowledging).IsError());
    send(acknowledging, acknowledgement(3, OBGui::kTaskSuccess));
    leave(acknowledging);
  }
  onStore([](const Store& store) {
    return store.database().read([](soci::session& session) -> CWmError {
      EXPECT_EQ(contactOf(session, 3).proven, 2);
      return {};
    });
  });
}

TEST_F(OverhubServerTest, AClientThatNeverLeavesDoesNotKeepItFromStopping) {
  expectOk({"add-client", "web-1"});
  const std::string key = keyOf("web-1");
  Store store({data_, ""});
  ASSERT_FALSE(store.open().IsError());
  std::size_t cutOff = 0;
  CLqNetwork network;
  network.UseCredentials("web-1", key);
  Server left(store);
  ASSERT_FALSE(left.listen(address_, 8401).IsError() || left.listen(address_, 8400).IsError());
  ASSERT_FALSE(left.start().IsError() || attach(network).IsError());
  std::thread stopping([&] {
    EXPECT_EQ(left.stop(cutOff, std::chrono::hours(1)), 0U) << "once there is nobody left to wait for";
  });
  while (PlainSocket().connectTo(address_, 8400)) std::this_thread::yield();  // until nobody is let in
  leave(network);
  stopping.join();

  Server server(store);
  for (const int port : {8400, 8402})
    ASSERT_FALSE(server.listen(address_, static_cast<std::uint16_t>(port)).IsError());
  ASSERT_FALSE(server.start().IsError() || attach(network).IsError());
  EXPECT_EQ(server.stop(cutOff, std::chrono::milliseconds(50)), 0U);
  EXPECT_EQ(cutOff, 1U);
  EXPECT_FALSE(network.IsConnected());
}

}  // namespace
