// The running server, with this process as its clients over the wire.
#include <unistd.h>

#include <filesystem>

#include <thread>

#include "records/App.h"
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
  EXPECT_TRUE(contains(server->output(), "data in " + data_ + ", 1 clients"));

  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  std::string refusal;
  const auto batch = ask(network, requestOf(7), refusal);
  EXPECT_EQ(refusal, "");
  EXPECT_EQ(batch.taskStatus, OBGui::kTaskSuccess);
  EXPECT_EQ(batch.client->clientId, 7);
  ASSERT_EQ(batch.keys->size(), 2U);
  EXPECT_EQ(batch.keys.get()[0].value.get(), "10");
  EXPECT_EQ(batch.keys.get()[1].encryptedValue->reveal(), "sesame");

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
  const std::string acks = overhub({"acks", "web-1"}).out;
  const std::size_t failed = acks.find("web-1   id=7 taskStatus=1 (failed)");
  const std::size_t applied = acks.find("web-1   id=7 taskStatus=3 (applied)");
  EXPECT_TRUE(failed < applied && applied != std::string::npos) << acks;
  EXPECT_EQ(overhub({"acks"}).out, acks);
  EXPECT_TRUE(contains(overhub({"clients"}).out, "id=7 taskStatus=3 (applied)"));
  EXPECT_EQ(server->stop(), 0);
  EXPECT_TRUE(contains(server->output(), "web-1 on machine1: OBGui.RegistryTaskReq: 2 records"));
  EXPECT_FALSE(contains(server->output(), "sesame"));
}

// Who is not let in, and hears why.
TEST_F(OverhubServerTest, RefusesStrangersAndUnknownServices) {
  expectOk({"add-client", "web-1"});
  expectOk({"add-client", "keyless"});
  std::filesystem::remove(data_ + "/keys/keyless.key");
  const auto server = serve();
  const std::string wrongKey(64, 'a');
  for (const char* const name : {"web-1", "keyless", "nobody", "../keys/web-1", "@static"}) {
    become(name, wrongKey);
    CLqNetwork network;
    EXPECT_EQ(attach(network).GetCode(), kLqErrHandshake) << name;
  }
  become("web-1");
  CLqNetwork network;
  const CWmError refused = attach(network, kLibrary, "sLPOTHER");
  EXPECT_EQ(refused.GetCode(), kLqErrAttachRefused);
  EXPECT_TRUE(contains(refused.AsString(), "sLNREGKEYMANAGER/sLPOTHER")) << refused.AsString();
  EXPECT_FALSE(attach(network).IsError()) << "the right one still works";
}

// A request that cannot be served gets a reason, and the session goes on.
TEST_F(OverhubServerTest, DeclinesWhatItCannotServe) {
  expectOk({"add-client", "web-1"});
  expectOk({"add-client", "web-2"});
  const auto server = serve();
  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  App::RegisterSubsystem();
  const struct {
    std::unique_ptr<CNMessageBase> message;
    const char* reason;
  } cases[] = {
      // web-2's id, not web-1's: the batch of another client, with its secrets
      {std::make_unique<OBGui::RegistryTaskReq>(requestOf(4)), "unknown client id 4"},
      {std::make_unique<OBGui::RegistryTaskReq>(), "unknown client id 0"},
      {std::make_unique<App::RegistryKeyInfo>(), "App.RegistryKeyInfo"},
      {std::make_unique<OBGui::RegistryKeyInfo>(), "OBGui.RegistryKeyInfo is not handled"},
      {std::make_unique<OBGui::RegistryTaskResp>(acknowledgement(3, 5)), "task status 5"},
  };
  std::string refusal;
  for (const auto& [message, reason] : cases) {
    ask(network, *message, refusal);
    EXPECT_TRUE(contains(refusal, reason)) << refusal;
    EXPECT_TRUE(server->waitForOutput(reason)) << "not in the log";
  }

  const std::string good = test_support::readFile(batchFile("web-1"));
  test_support::writeFile(batchFile("web-1"), "<broken");
  ask(network, requestOf(3), refusal);
  EXPECT_TRUE(contains(refusal, "cannot read the batch of web-1")) << refusal;
  EXPECT_TRUE(server->waitForOutput(batchFile("web-1") + ": broken XML"));
  EXPECT_EQ(test_support::readFile(batchFile("web-1")), "<broken");
  test_support::writeFile(batchFile("web-1"), good);
  ask(network, requestOf(3), refusal);
  EXPECT_EQ(refusal, "");
}

// One client's session, or a stranger's noise, must hold up nobody else; nor may a full house.
TEST_F(OverhubServerTest, ServesManyAtOnceThroughNoise) {
  constexpr int kClients = 16;
  constexpr int kFullHouse = 64;
  constexpr int kFirst = 3;  // the id that the first client gets
  for (int i = kFirst; i < kFirst + kClients; ++i) {
    expectOk({"add-client", "c" + std::to_string(i)});
    expectOk({"set", "c" + std::to_string(i), "p", "own", std::to_string(i)});
  }
  const auto server = serve();
  const int silent = test_support::connectPlain(address_, 8402);
  const int noisy = test_support::connectPlain(address_, 8400);
  const std::string garbage = "GET / HTTP/1.1\r\n\r\n";
  EXPECT_EQ(::write(noisy, garbage.data(), garbage.size()), static_cast<ssize_t>(garbage.size()));

  std::vector<std::unique_ptr<CLqNetwork>> sessions;
  for (int i = kFirst; i < kFirst + kClients; ++i) {
    become("c" + std::to_string(i));
    ASSERT_FALSE(attach(*sessions.emplace_back(std::make_unique<CLqNetwork>())).IsError());
  }
  for (int i = 0; i < kClients; ++i) send(*sessions[static_cast<std::size_t>(i)], requestOf(kFirst + i));
  std::string refusal;
  for (int i = kClients - 1; i >= 0; --i) {
    const auto batch = receive(*sessions[static_cast<std::size_t>(i)], refusal);
    ASSERT_EQ(batch.keys->size(), 1U) << refusal;
    EXPECT_EQ(batch.keys.get()[0].value.get(), std::to_string(kFirst + i));
  }
  ::close(silent);
  ::close(noisy);

  // As many as there is room for, and two more, which wait until somebody leaves.
  while (sessions.size() < kFullHouse)
    ASSERT_FALSE(attach(*sessions.emplace_back(std::make_unique<CLqNetwork>())).IsError());
  CLqNetwork waiting[2];
  std::thread waiters[2];
  for (int i = 0; i < 2; ++i)
    waiters[i] = std::thread([this, &network = waiting[i]] { EXPECT_FALSE(attach(network).IsError()); });
  for (int i = 0; i < 2; ++i) leave(*sessions[static_cast<std::size_t>(i)]);
  for (auto& waiter : waiters) waiter.join();
  for (auto& session : sessions) leave(*session);
  for (auto& session : waiting) leave(session);
  EXPECT_EQ(server->stop(), 0);
}

// Two servers on one directory would race for its files; a client that never leaves must not keep the server
// from stopping.
TEST_F(OverhubServerTest, IsAloneOnItsDataAndStopsWhileAClientIsAttached) {
  expectOk({"add-client", "web-1"});
  const auto server = serve();
  const auto second = overhub({"serve", "--listen", test_support::uniqueLoopbackAddress()});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_TRUE(contains(second.err, data_) && contains(second.err, "another overhub")) << second.err;
  const auto sameAddress = test_support::runProgram(
      {test_support::programPath("overhub"), "--data", dir_ / "other", "serve", "--listen", address_});
  EXPECT_EQ(sameAddress.exitCode, 1);
  EXPECT_TRUE(contains(sameAddress.err, address_)) << sameAddress.err;

  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  EXPECT_EQ(server->stop(), 0);
  EXPECT_FALSE(network.IsConnected());
  const auto next = serve();  // the lock went with the process
  EXPECT_FALSE(attach(network).IsError());
}

}  // namespace
