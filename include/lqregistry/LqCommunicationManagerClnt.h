// LqCommunicationManagerClnt: the generic application-message client. A host service uses it to send one
// prepared message to the management server, or to answer a message of the server through the handler that
// host code has registered for its type.
//
// It stands on the session steps of the registry client, with a connection that is part of the object. An
// object is used by one thread at a time. The handler table is process-wide and not locked: handlers are
// registered before requests are dispatched. Nothing is thrown; failures are false, and stand in the log.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "lqregistry/App.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/ObDebug.h"

class LQ_EXPORT LqCommunicationManagerClnt {
 public:
  // Turns the payload of a request into that of the reply, in place; 0 on success. What it leaves there is
  // sent either way. A handler that throws is answered for: App::kErrorHandlerThrew goes out in its place.
  using CallBackFunction = int (*)(std::string& payload);

  // The handlers by message type.
  static std::map<int, CallBackFunction> callBackFunctionMap;
  // Stores a handler, in place of an earlier one of the same type. Always 1.
  static int registerCallBackFunction(int messageType, CallBackFunction handler);

  // `focus` is the installation instance to work on; empty means the platform's current one.
  explicit LqCommunicationManagerClnt(const std::string& focus);
  // Drops an open connection without a goodbye.
  ~LqCommunicationManagerClnt();
  LqCommunicationManagerClnt(const LqCommunicationManagerClnt&) = delete;
  LqCommunicationManagerClnt& operator=(const LqCommunicationManagerClnt&) = delete;

  // Registers the message namespaces and determines platform types and host names. Always true.
  bool initialize();

  void setRemotePlatformType(std::uint32_t type) { remotePlatformType = type; }
  std::uint32_t getRemotePlatformType() const { return remotePlatformType; }
  void setLocalPlatformType(std::uint32_t type) { localPlatformType = type; }
  std::uint32_t getLocalPlatformType() const { return localPlatformType; }
  void setRemoteHostName(const std::string& name) { remoteHostName = name; }
  std::string getRemoteHostName() const { return remoteHostName; }
  void setLocalHostName(const std::string& name) { localHostName = name; }
  std::string getLocalHostName() const { return localHostName; }

  // What the next exchange sends (not owned), and whether it waits for no reply.
  void setXMLSendObj(const CNMessageBase* message) { sendMessage = message; }
  const CNMessageBase* getXMLSendObj() const { return sendMessage; }
  void setSendOnly(bool value) { sendOnly = value; }

  // One exchange of the message set: connects if need be, sends, receives unless send-only, disconnects.
  bool networkOperationsRequest();
  // The exchange over an existing connection.
  bool messageOperationsRequest();
  bool sendXMLMessage();
  bool receiveXMLMessage();
  bool dllConnect();
  void disconnect();

  // Answers a message of the server: the reply is left as the message to send. Every request is answered, one
  // of an unknown type, or whose handler throws, with an App::GenericResp as text for its payload. Always 0.
  int serverRequestHandler(App::AppCommunicationMessageReq& request);

  CLqNetwork network;
  LQPlatformInfo platformInfo;
  ObDebug logger;
  const CNMessageBase* sendMessage = nullptr;
  std::unique_ptr<CNMessageBase> receivedMessage;  // the last reply; the caller may take it
  std::uint32_t remotePlatformType = 0;
  std::uint32_t localPlatformType = 0;
  std::string remoteLibraryName;
  std::string remoteEntryName;
  std::string remoteHostName;
  std::string localHostName;
  bool sendOnly = false;
  App::AppCommunicationMessageResp serverRequest;

 private:
  // The payload that the handler makes of a request's, or the error that answers for it.
  std::string answerOf(CallBackFunction handler, std::string payload, long type) const;
};
