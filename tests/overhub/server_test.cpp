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
  // Files are read anew each time.
  expectOk({"set", "@static", "p", "n", "v"});
  EXPECT_EQ(ask(network, OBGui::RegistryStaticKeyReq(), refusal).keys->size(), 1U);
  expectOk({"unset", "web-1", "~/Proxy", "sPW"});
  EXPECT_EQ(ask(network, requestOf(7), refusal).keys->size(), 1U);

  send(network, acknowledgement(7, OBGui::kTaskFailed));
  send(network, acknowledgement(7, OBGui::kTaskSuccess));
  leave(network);
  const std::string acks = outOf(overhub({"acks", "web-1"}));
  const std::size_t failed = acks.find("web-1   id=7 taskStatus=1 (failed)");
  const std::size_t applied = acks.find("web-1   id=7 taskStatus=3 (applied)");
  EXPECT_TRUE(failed < applied && applied != std::string::npos) << acks;
  expectOut(overhub({"clients"}), 0, {"id=7 taskStatus=3 (applied)"});
  EXPECT_EQ(server->stop(), 0);
  EXPECT_TRUE(contains(server->output(), "web-1 on machine1: OBGui.RegistryTaskReq: 2 records"));
  for (const char* const absent : {"sesame", "cut off", "cannot be let in", "client web-1: "})
    EXPECT_FALSE(contains(server->output(), absent)) << absent;
}

// Who is not let in, and hears why.
TEST_F(OverhubServerTest, RefusesStrangersAndUnknownServices) {
  for (const std::string client : {"web-1", "keyless"}) expectOk({"add-client", client});
  std::filesystem::remove(data_ + "/keys/keyless.key");
  const auto server = serve();
  for (const std::string name : {"web-1", "keyless", "nobody", "../keys/web-1", "@static"}) {
    become(name, name == "web-1" ? std::string(64, 'a') : keyOf("web-1"));
    CLqNetwork network;
    EXPECT_EQ(attach(network).GetCode(), kLqErrHandshake) << name;
  }
  EXPECT_TRUE(contains(server->output(), "client keyless cannot be let in: " + data_)) << server->output();
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
  become("web-1");
  CLqNetwork network;
  for (const char* const noFile : {"/acks/web-1.log", "/addresses/web-1"})
    ASSERT_TRUE(std::filesystem::create_directories(data_ + noFile));
  ASSERT_FALSE(attach(network).IsError());
  EXPECT_TRUE(server->waitForOutput("client web-1: " + data_ + "/addresses/web-1: not a regular file"));
  const std::pair<std::unique_ptr<CNMessageBase>, const char*> cases[] = {
      // web-2's id, not web-1's: the batch of another client, with its secrets
      {std::make_unique<OBGui::RegistryTaskReq>(requestOf(4)), "unknown client id 4"},
      {std::make_unique<OBGui::RegistryTaskReq>(), "unknown client id 0"},
      {std::make_unique<OBGui::RegistryKeyInfo>(), "OBGui.RegistryKeyInfo is not handled"},
      {std::make_unique<OBGui::RegistryTaskResp>(acknowledgement(3, 5)), "task status 5"},
      {std::make_unique<OBGui::RegistryTaskResp>(acknowledgement(3, 3)), "its log tells why"},
  };
  std::string refusal;
  for (const auto& [message, reason] : cases) {
    ask(network, *message, refusal);
    EXPECT_TRUE(contains(refusal, reason)) << refusal;
    EXPECT_TRUE(server->waitForOutput(reason)) << "not in the log";
  }

  writeFile(batchFile("web-1"),
            "<OBGui.RegistryTaskResp><client clientId=\"3\"/><keys><OBGui.RegistryKeyInfo "
            "valueName=\"sPW\" encryptedValue=\"V8:another key's\"/></keys></OBGui.RegistryTaskResp>");
  ask(network, requestOf(3), refusal);
  EXPECT_TRUE(contains(refusal, "cannot read the batch of web-1")) << refusal;
  EXPECT_TRUE(server->waitForOutput("sPW was protected with another key")) << server->output();
  writeFile(batchFile("web-1"), "<broken");
  ask(network, requestOf(3), refusal);
  EXPECT_TRUE(contains(refusal, "cannot read the batch of web-1")) << refusal;
  EXPECT_TRUE(server->waitForOutput(batchFile("web-1") + ": broken XML"));
  EXPECT_EQ(readFile(batchFile("web-1")), "<broken");
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

// Two servers on one directory would race for its files.
TEST_F(OverhubServerTest, IsAloneOnItsData) {
  const auto refused = [&] { return overhub({"serve", "--listen", uniqueLoopbackAddress()}); };
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = 100;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto first = serve();
  prlimit(first->process(), RLIMIT_NOFILE, nullptr, &limit);
  EXPECT_EQ(limit.rlim_cur, limit.rlim_max) << "as many clients as the system allows";
  expectErr(refused(), 1, {data_, "another overhub"});
  EXPECT_EQ(first->stop(), 0);
  writeFile(data_ + "/serve.lock", "a long name of whoever had it before");
  const auto second = serve();  // the lock went with the process
  expectErr(refused(), 1, {"another overhub (process " + std::to_string(second->process()) + ") serves"});
}

TEST_F(OverhubServerTest, AClientThatNeverLeavesDoesNotKeepItFromStopping) {
  expectOk({"add-client", "web-1"});
  const DataStore store(data_);
  std::size_t cutOff = 0;
  become("web-1");
  CLqNetwork network;
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
