// The client's construction and its session with the management server.
#include "client_session/session_steps.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"

namespace {

// A message that was sent is a milestone of this client; the other texts are this class's own.
constexpr session_steps::Style kStyle{
    .networkOperationsTag = "LqRegistryManagerClnt::networkOperationsReg",
    .messageOperationsTag = "LqRegistryManagerClnt::messageOperationsReg",
    .sendTag = "LqRegistryManagerClnt::sendXMLMessage",
    .receiveTag = "LqRegistryManagerClnt::receiveXMLMessage",
    .connectTag = "LqRegistryManagerClnt::dllConnect",
    .sentLevel = kLogMilestone,
    .lostLabel = "Msg",
    .receiveFailedLabel = "LqRegistryManagerClnt",
};

}  // namespace

LqRegistryManagerClnt::LqRegistryManagerClnt(const std::string& focus) {
  if (!focus.empty()) platformInfo.setFocus(focus);
  logger.Initialize(session_steps::kLogId, 0, false, "");
  initialize();
  session_steps::setDefaults(*this);
}

LqRegistryManagerClnt::~LqRegistryManagerClnt() {
  network.reset();  // before the fields that it may still be looked at with
}

bool LqRegistryManagerClnt::initialize() {
  OBGui::RegisterSubsystem();
  LqEntities::RegisterSubsystem();
  const std::string serverHost = session_steps::serverHostName(platformInfo);
  const std::string localHost = session_steps::localClientHostName(platformInfo);
  const std::string name = session_steps::clientNameOfHost(platformInfo, localHost);
  if (LQClient(name, false, 0).getClientId(clientId, nullptr) != 0 || clientId == 0) {
    clientId = 0;
    logger.Error("LqRegistryManagerClnt::initialize", "Failed to get client id for client[%s]", name.c_str());
    return false;
  }
  session_steps::setPlatformTypesAndHosts(*this, serverHost, localHost);
  return true;
}

bool LqRegistryManagerClnt::networkOperationsReg(int, int) {
  return session_steps::connected(*this, kStyle, network && network->IsConnected()) && messageOperationsReg();
}

bool LqRegistryManagerClnt::messageOperationsReg() {
  return session_steps::messageOperations(*this, kStyle);
}

bool LqRegistryManagerClnt::sendXMLMessage() {
  return session_steps::send(*this, kStyle, network.get());
}

bool LqRegistryManagerClnt::receiveXMLMessage() {
  return session_steps::receive(*this, kStyle, network.get());
}

bool LqRegistryManagerClnt::dllConnect() {
  remoteHostName = session_steps::serverHostName(platformInfo);
  std::string serverClient;
  if (!platformInfo.getString(lqsettings::kServerName.key, lqsettings::kServerName.name, serverClient)) {
    logger.Debug(kStyle.connectTag, "Failed to get the OH Client name from regsitry");
    return false;
  }
  std::string serverHost;
  if (!platformInfo.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, serverHost)) {
    logger.Debug(kStyle.connectTag, "Failed to get the OH Client  hostname from regsitry");
    return false;
  }
  const std::string target = MangleHostName(serverHost, serverClient, kFirstServicePort, kSecondServicePort);
  if (!session_steps::mayConnect(*this, kStyle)) return false;
  network = std::make_unique<CLqNetwork>();
  return session_steps::attach(*this, kStyle, *network, target);
}

void LqRegistryManagerClnt::disconnect() {
  if (!network) return;
  session_steps::endConnection(*network);
  network.reset();
}

std::string LqRegistryManagerClnt::clientName() {
  return session_steps::clientNameOfHost(platformInfo, localHostName);
}

std::int64_t LqRegistryManagerClnt::narrowedClientId() const {
  // What the server knows uploads and answers by: there, an id has 32 bits and a sign.
  return static_cast<std::int32_t>(clientId);
}

bool LqRegistryManagerClnt::findClientId(const std::string& name) {
  if (clientId != 0) return true;
  return LQClient(name, false, 0).getClientId(clientId, nullptr) == 0 && clientId != 0;
}

bool LqRegistryManagerClnt::exchange(const CNMessageBase& message) {
  sendMessage = &message;
  receivedMessage.reset();
  return networkOperationsReg(-1, -1);
}

bool LqRegistryManagerClnt::sendWithoutReply(const CNMessageBase& message) {
  sendOnly = true;
  const bool sent = exchange(message);
  sendOnly = false;
  return sent;
}
