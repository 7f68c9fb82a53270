// The session steps that the clients of the management server share: connect, send, receive, disconnect.
//
// A client is a class with the fields platformInfo, logger, sendMessage, receivedMessage, sendOnly,
// localPlatformType, remotePlatformType, remoteLibraryName, remoteEntryName, remoteHostName and
// localHostName, and with the operations sendXMLMessage, receiveXMLMessage and disconnect. What differs
// between clients is passed in: the connection, because not every client owns it in the same way, and a Style
// with the texts.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/ObDebug.h"
#include "records/service_names.h"

namespace session_steps {

// Buffers into which names are read, NUL included, as the platform's interfaces take them.
inline constexpr std::size_t kHostNameBuffer = 1024;
inline constexpr std::size_t kServerNameBuffer = 256;
// Most characters of a physical machine name that go into a local name.
inline constexpr std::size_t kMaxLocalName = 255;
// Seconds for attach and for an orderly disconnect.
inline constexpr int kAttachSeconds = 120;
inline constexpr int kDisconnectSeconds = 120;
// Send and receive have no limit of their own.
inline constexpr int kNoTimeout = -1;

// The numeric log identifier of both clients.
inline constexpr std::uint32_t kLogId = 281908688;

// Texts and levels of one client class; the tags are "<class>::<operation>".
struct Style {
  const char* networkOperationsTag;
  const char* messageOperationsTag;
  const char* sendTag;
  const char* receiveTag;
  const char* connectTag;
  int sentLevel;                   // of the line that says a message was sent
  const char* lostLabel;           // what stands before the error's text when the connection was lost
  const char* receiveFailedLabel;  // likewise, for every other failure to receive
};

// This machine's client host name; empty when it is not known.
std::string localClientHostName(LQPlatformInfo& platformInfo);

// The management server's host name; empty when it is not known.
std::string serverHostName(LQPlatformInfo& platformInfo);

// The client name registered for a host name, cut as the platform's name buffers cut it; may be empty.
std::string clientNameOfHost(LQPlatformInfo& platformInfo, const std::string& hostName);

// The name under which this machine attaches: on the server's own machine the server's client name, elsewhere
// the physical machine name.
std::string localSessionName(LQPlatformInfo& platformInfo);

// The peer's name for a log line; empty when there is none.
std::string peerName(const CLqNetwork& network);

// This machine's platform type as sessions know it: 2, else 4, else 0.
std::uint32_t sessionPlatformType(LQPlatformInfo& platformInfo);

// Sets what both clients set after they have looked up their own part.
template <class Client>
void setPlatformTypesAndHosts(Client& client, const std::string& serverHost, const std::string& localHost) {
  client.setLocalPlatformType(sessionPlatformType(client.platformInfo));
  client.setRemotePlatformType(1);
  client.setRemoteHostName(serverHost);
  client.setLocalHostName(localHost);
}

// The constructor's defaults that initialize() leaves open. The server's host name that it stored is dropped,
// because it may be another one by the time of a connection: each looks it up afresh.
template <class Client>
void setDefaults(Client& client) {
  client.remoteLibraryName = kServerLibraryName;
  client.remoteEntryName = kServerEntryName;
  client.remoteHostName.clear();
  client.localHostName = localClientHostName(client.platformInfo);
}

// A platform type that has not been determined; connecting is refused with it.
inline constexpr std::uint32_t kPlatformTypeUnset = 4294967295;

// Whether there is a connection, or could be made one.
template <class Client>
bool connected(Client& client, const Style& style, bool isConnected) {
  if (isConnected || client.dllConnect()) return true;
  client.logger.DebugLvl(0, style.networkOperationsTag, "Failed to connect to remote machine");
  return false;
}

// Whether a connection may be tried: both hosts and both platform types are known.
template <class Client>
bool mayConnect(const Client& client, const Style& style) {
  if (client.remoteHostName.empty() || client.localHostName.empty() ||
      client.remotePlatformType == kPlatformTypeUnset || client.localPlatformType == kPlatformTypeUnset)
    return false;
  client.logger.DebugLvl(kLogDetail, style.connectTag, "Remote HostName [%s] , Local Host Name [%s]",
                         client.remoteHostName.c_str(), client.localHostName.c_str());
  return true;
}

template <class Client>
bool attach(Client& client, const Style& style, CLqNetwork& network, const std::string& target) {
  lqsExecuteRemoteDllType remoteLibrary;
  remoteLibrary.setNames(client.remoteLibraryName, client.remoteEntryName);
  bool peerGone = false;
  const CWmError error = network.Attach_RemoteDLL(
      target, remoteLibrary, localSessionName(client.platformInfo), kAttachSeconds, peerGone);
  if (!error.IsError()) return true;
  client.logger.DebugLvl(0, style.connectTag, "1-Failed to connect to the remote machine %s Error %s",
                         client.remoteHostName.c_str(), error.AsString());
  return false;
}

template <class Client>
bool messageOperations(Client& client, const Style& style) {
  if (!client.sendXMLMessage()) {
    client.logger.Debug(style.messageOperationsTag, "Failed to send XML message");
    return false;
  }
  if (!client.sendOnly && !client.receiveXMLMessage()) {
    client.logger.Debug(style.messageOperationsTag, "Failed to receive XML message");
    return false;
  }
  client.disconnect();
  return true;
}

template <class Client>
bool send(Client& client, const Style& style, CLqNetwork* network) {
  if (client.sendMessage == nullptr || network == nullptr) return false;
  const unsigned long tag = client.sendMessage->getTagID();
  bool peerGone = false;
  const CWmError error = network->SendXMLMessage(*client.sendMessage, 0, kNoTimeout, peerGone);
  if (error.IsError()) {
    client.logger.Debug(style.sendTag, "Failed to send message [%lu], Error [%s]", tag, error.AsString());
    client.disconnect();
    return false;
  }
  constexpr const char* kSent = "Sent message [%lu] successfully to remote machine [%s]";
  if (style.sentLevel == kLqLogDefaultLevel) {
    client.logger.Debug(style.sendTag, kSent, tag, peerName(*network).c_str());
  } else {
    client.logger.DebugLvl(style.sentLevel, style.sendTag, kSent, tag, peerName(*network).c_str());
  }
  return true;
}

template <class Client>
bool receive(Client& client, const Style& style, CLqNetwork* network) {
  if (network == nullptr) return false;
  bool peerGone = false;
  const CWmError error =
      network->ReceiveXMLMessage(nullptr, client.receivedMessage, nullptr, 0, kNoTimeout, peerGone);
  if (!error.IsError()) {
    client.logger.Debug(style.receiveTag, "Received message successfully from remote machine [%s]",
                        peerName(*network).c_str());
    return true;
  }
  std::uint32_t code = 0;
  std::string text;
  network->GetLastErrorGenericText(code, text, 0);
  if (code == kLqErrConnectionLost) {
    client.logger.Debug(style.receiveTag, "Connection to remote machine lost. %s[%s]", style.lostLabel,
                        error.AsString());
  } else {
    client.disconnect();
    client.logger.Debug(style.receiveTag, "%s::Failed to receive message [%s]", style.receiveFailedLabel,
                        error.AsString());
  }
  return false;
}

// Says goodbye if the connection is up.
inline void endConnection(CLqNetwork& network) {
  bool peerGone = false;
  if (network.IsConnected()) network.Disconnect(kDisconnectSeconds, peerGone);
}

}  // namespace session_steps
