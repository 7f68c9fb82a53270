// What the server's tests share: a store of their own, the commands as a person runs them, the server in the
// background, and this process as one of its clients.
#pragma once

#include <soci/soci.h>

#include <memory>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/pstring.h"
#include "overhub/store/clients.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/session_keys.h"
#include "tests/support/expectations.h"

class OverhubTest : public testing::Test {
 protected:
  static constexpr int kPatience = 60;  // seconds, for steps that are expected to succeed
  static constexpr const char* kLibrary = "sLNREGKEYMANAGER";
  static constexpr const char* kEntry = "sLPREGKEYMANAGER";

  OverhubTest() {
    lqregistry::UseFile(dir_ / "registry.db");
    OBGui::RegisterSubsystem();
  }

  ProgramResult overhub(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {programPath("overhub"), "--data", data_});
    return runProgram(arguments);
  }
  // Runs a shell script with the program as "$OVERHUB".
  ProgramResult shell(const std::string& script) const {
    return runProgram({"sh", "-c", script}, {"OVERHUB=" + programPath("overhub"), "OVERHUB_DATA=" + data_});
  }
  void expectOk(const std::vector<std::string>& arguments) const { outOf(overhub(arguments)); }
  std::string storeFile() const { return data_ + "/overhub.db"; }

  // Works on the store in this process, which has its own protection key again afterwards.
  template <class Work>
  void onStore(const Work& work) const {
    Store store({data_, ""});
    EXPECT_STREQ(store.open().AsString(), "");
    EXPECT_STREQ(work(store).AsString(), "");
    pstring::UseKeyFile("");
  }
  // Changes the store behind everybody's back.
  void meddle(const std::string& statement) const {
    onStore([&](const Store& store) {
      return store.database().write([&](soci::session& session) -> CWmError {
        session << statement;
        return {};
      });
    });
  }
  // What the client would be handed now.
  OBGui::RegistryTaskResp batchOf(const std::string& client) const {
    OBGui::RegistryTaskResp batch;
    onStore([&](const Store& store) {
      return store.database().read([&](soci::session& session) {
        MachineState state;
        const CWmError error = machineState(session, findClient(session, client).value_or(Client()).id,
                                            client, store.database().now(session), state);
        batch.keys = ::batchOf(state.settings, state.held, 0);
        return error;
      });
    });
    return batch;
  }
  std::string keyOf(const std::string& client) const {
    std::string key;
    onStore([&](const Store& store) { return readSessionKey(store, client, key); });
    return key;
  }

  std::unique_ptr<BackgroundProgram> serve() const {
    auto server = std::make_unique<BackgroundProgram>(
        std::vector<std::string>{programPath("overhub"), "--data", data_, "serve", "--listen", address_},
        dir_ / "serve.log");
    EXPECT_TRUE(server->waitForOutput("overhub ready on " + address_ + ":8400 and " + address_ + ":8402"))
        << server->output();
    EXPECT_TRUE(server->output().starts_with("overhub ready")) << "said, not only logged";
    return server;
  }

  // Makes this process the client, with the key that the server made for it unless another is given.
  void become(const std::string& client, std::string keyHex = {}) const {
    if (keyHex.empty()) keyHex = keyOf(client);
    LQPI_Focus::setFocus("Instance001");
    LQPlatformInfo info;
    info.setString("Overhub", "sSESSIONIDENTITY", client, 0);
    info.setString("Overhub", "sSESSIONKEY", keyHex, 0);
  }
  CWmError attach(CLqNetwork& network, const char* library = kLibrary, const char* entry = kEntry) const {
    lqsExecuteRemoteDllType remote;
    remote.setNames(library, entry);
    bool peerGone = false;
    return network.Attach_RemoteDLL(MangleHostName(address_, "overhub", 8400, 8402), remote, "machine1",
                                    kPatience, peerGone);
  }
  static void send(CLqNetwork& network, const CNMessageBase& message) {
    bool peerGone = false;
    EXPECT_STREQ(network.SendXMLMessage(message, 0, kPatience, peerGone).AsString(), "");
  }
  // The batch that comes next; in `refusal`, why there is none.
  static OBGui::RegistryTaskResp receive(CLqNetwork& network, std::string& refusal) {
    std::unique_ptr<CNMessageBase> message;
    bool peerGone = false;
    const CWmError error = network.ReceiveXMLMessage(nullptr, message, nullptr, 0, kPatience, peerGone);
    refusal = error.AsString();
    if (error.IsError()) {
      EXPECT_EQ(error.GetCode(), kLqErrRequestRefused) << refusal;
      return {};
    }
    const auto* const batch = messageAs<OBGui::RegistryTaskResp>(message.get());
    return batch != nullptr ? *batch : OBGui::RegistryTaskResp();
  }
  static OBGui::RegistryTaskResp ask(CLqNetwork& network, const CNMessageBase& request,
                                     std::string& refusal) {
    send(network, request);
    return receive(network, refusal);
  }
  // Ends the session; what was sent before has been dealt with then.
  static void leave(CLqNetwork& network) {
    bool peerGone = false;
    network.Disconnect(kPatience, peerGone);
  }
  static OBGui::RegistryTaskReq requestOf(std::int64_t clientId) {
    OBGui::RegistryTaskReq request;
    request.client.edit().clientId = clientId;
    return request;
  }

  TempDir dir_;
  std::string data_ = dir_ / "made/data";
  std::string address_ = uniqueLoopbackAddress();
};
