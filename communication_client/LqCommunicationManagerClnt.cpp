#include "lqregistry/LqCommunicationManagerClnt.h"

#include <exception>

#include "client_session/session_steps.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LqEntities.h"

namespace {

constexpr session_steps::Style kStyle{
    .networkOperationsTag = "LqCommunicationManagerClnt::networkOperationsRequest",
    .messageOperationsTag = "LqCommunicationManagerClnt::messageOperationsRequest",
    .sendTag = "LqCommunicationManagerClnt::sendXMLMessage",
    .receiveTag = "LqCommunicationManagerClnt::receiveXMLMessage",
    .connectTag = "LqCommunicationManagerClnt::dllConnect",
    .sentLevel = kLqLogDefaultLevel,
    .lostLabel = "Error:",
    .receiveFailedLabel = "LqCommunicationManagerClnt",
};

constexpr const char* kDispatchTag = "LqCommunicationManagerClnt::serverRequestHandler";

constexpr const char* kNotImplementedText = "Callback function not implemented";
// What the exception says stays in this machine's log: its text may name what the server need not know.
constexpr const char* kHandlerThrewText = "Callback function ended with an exception";

// An error as the payload of an answer.
std::string errorPayload(std::int64_t code, const char* text) {
  App::GenericResp refusal;
  refusal.errorCode = code;
  refusal.errorText = std::string(text);
  std::string payload;
  refusal.serialize(payload, false);
  return payload;
}

}  // namespace

std::map<int, LqCommunicationManagerClnt::CallBackFunction> LqCommunicationManagerClnt::callBackFunctionMap;

int LqCommunicationManagerClnt::registerCallBackFunction(int messageType, CallBackFunction handler) {
  callBackFunctionMap[messageType] = handler;
  return 1;
}

LqCommunicationManagerClnt::LqCommunicationManagerClnt(const std::string& focus) {
  if (!focus.empty()) platformInfo.setFocus(focus);
  logger.Initialize(session_steps::kLogId, 0, false, "");
  initialize();
  session_steps::setDefaults(*this);
}

LqCommunicationManagerClnt::~LqCommunicationManagerClnt() = default;

bool LqCommunicationManagerClnt::initialize() {
  App::RegisterSubsystem();
  LqEntities::RegisterSubsystem();
  const std::string serverHost = session_steps::serverHostName(platformInfo);
  const std::string localHost = session_steps::localClientHostName(platformInfo);
  // Asked for and dropped: this client's messages carry no client id.
  std::uint64_t ownId = 0;
  LQClient(session_steps::clientNameOfHost(platformInfo, localHost), false, 0).getClientId(ownId, nullptr);
  session_steps::setPlatformTypesAndHosts(*this, serverHost, localHost);
  return true;
}

bool LqCommunicationManagerClnt::networkOperationsRequest() {
  if (!session_steps::connected(*this, kStyle, network.IsConnected())) return false;
  if (messageOperationsRequest()) return true;
  logger.DebugLvl(0, kStyle.networkOperationsTag, "messageOperationsRequest Failed");
  return false;
}

bool LqCommunicationManagerClnt::messageOperationsRequest() {
  return session_steps::messageOperations(*this, kStyle);
}

bool LqCommunicationManagerClnt::sendXMLMessage() {
  return session_steps::send(*this, kStyle, &network);
}

bool LqCommunicationManagerClnt::receiveXMLMessage() {
  return session_steps::receive(*this, kStyle, &network);
}

bool LqCommunicationManagerClnt::dllConnect() {
  remoteHostName = session_steps::serverHostName(platformInfo);
  std::string target;
  LQClient(kServerClientId).getNetworkHostnameMangled(target);
  return session_steps::mayConnect(*this, kStyle) && session_steps::attach(*this, kStyle, network, target);
}

void LqCommunicationManagerClnt::disconnect() {
  session_steps::endConnection(network);
}

int LqCommunicationManagerClnt::serverRequestHandler(App::AppCommunicationMessageReq& request) {
  const auto type = static_cast<long>(request.messageType.get());
  // By its low 32 bits: that is what handlers are registered under.
  const auto found = callBackFunctionMap.find(static_cast<int>(type));
  if (found != callBackFunctionMap.end() && found->second != nullptr) {
    serverRequest.payload = answerOf(found->second, request.payload, type);
  } else {
    serverRequest.payload = errorPayload(App::kErrorNotImplemented, kNotImplementedText);
    logger.DebugLvl(0, kDispatchTag, "Call Back function not implemented for [%ld]", type);
  }
  sendMessage = &serverRequest;
  return 0;
}

std::string LqCommunicationManagerClnt::answerOf(CallBackFunction handler, std::string payload,
                                                 long type) const {
  // A handler is another module's code: what it throws must not reach the host's threads, and what it has
  // written by then is no answer.
  try {
    if (handler(payload) != 0) logger.DebugLvl(0, kDispatchTag, "Call Back function returned some error");
    return payload;
  } catch (const std::exception& exception) {
    logger.DebugLvl(0, kDispatchTag, "Call Back function for [%ld] ended with an exception: %s", type,
                    exception.what());
  } catch (...) {
    logger.DebugLvl(0, kDispatchTag, "Call Back function for [%ld] ended with an exception", type);
  }
  return errorPayload(App::kErrorHandlerThrew, kHandlerThrewText);
}
