#include "overhub/server/session.h"

#include <string>

#include "lqregistry/ObDebug.h"
#include "overhub/server/service.h"

namespace {

constexpr const char* kTag = "overhub::session";

// Where a client comes from is where it is called, unless a person has named another host.
void noteAddress(const CLqNetwork& network, const DataStore& store, const std::string& client) {
  const CWmError error = store.recordAddress(client, network.GetPeerAddress());
  if (error.IsError()) ObEvent().Error(kTag, "client %s: %s", client.c_str(), error.AsString());
}

// Lets the caller in, if it asks for a service that there is; null otherwise. `who` names it for the log.
const Service* attach(CLqNetwork& network, std::string& client, std::string& who) {
  lqsExecuteRemoteDllType wanted;
  std::string machine;
  CWmError error = network.AcceptAttach(wanted, machine, kHandshakeSeconds);
  if (error.IsError()) {
    ObEvent().Debug(kTag, "%s", error.AsString());
    return nullptr;
  }
  network.GetPeerName(client);
  who = client + " on " + (machine.empty() ? "an unnamed machine" : machine);
  const Service* const service = findService(wanted.libraryName, wanted.entryName);
  if (service == nullptr) {
    const std::string asked = std::string(wanted.libraryName) + "/" + wanted.entryName;
    ObEvent().Debug(kTag, "client %s refused: it asks for %s", who.c_str(), asked.c_str());
    network.RefuseAttach("this server does not offer " + asked);
    return nullptr;
  }
  error = network.ConfirmAttach();
  if (!error.IsError()) return service;
  ObEvent().Debug(kTag, "%s", error.AsString());
  return nullptr;
}

// False when the answer could not be sent, which ends the session.
bool answerRequest(CLqNetwork& network, const DataStore& store, const Service& service,
                   const std::string& client, const std::string& who, const CNMessageBase& message) {
  const Handler handler = service.find(message.getTagID());
  const Answer answer = handler != nullptr
                            ? handler(store, client, message)
                            : Answer::refused(std::string(message.className()) + " is not handled here");
  CWmError error;
  bool peerGone = false;
  if (!answer.refusal.empty()) {
    error = network.SendRefusal(answer.refusal);
  } else if (answer.reply) {
    error = network.SendXMLMessage(*answer.reply, 0, kIdleSeconds, peerGone);
  }
  ObEvent().Debug(kTag, "client %s: %s: %s%s%s", who.c_str(), message.className(), answer.summary.c_str(),
                  error.IsError() ? ", but " : "", error.AsString());
  return !error.IsError();
}

// False when the refusal could not be sent either.
bool refuseUnreadable(CLqNetwork& network, const std::string& who, const CWmError& reason) {
  ObEvent().Debug(kTag, "client %s: refused: %s", who.c_str(), reason.AsString());
  return !network.SendRefusal(reason.AsString()).IsError();
}

}  // namespace

void serveSession(CLqNetwork& network, const DataStore& store) {
  std::string client;
  std::string who;
  const Service* const service = attach(network, client, who);
  if (service == nullptr) return;
  noteAddress(network, store, client);
  for (bool goesOn = true; goesOn;) {
    std::unique_ptr<CNMessageBase> message;
    bool peerGone = false;
    const CWmError error = network.ReceiveXMLMessage(nullptr, message, nullptr, 0, kIdleSeconds, peerGone);
    if (!error.IsError()) {
      goesOn = answerRequest(network, store, *service, client, who, *message);
    } else if (error.GetCode() == kLqErrBadMessage) {
      goesOn = refuseUnreadable(network, who, error);
    } else {
      goesOn = false;
      const bool tookLeave = error.GetCode() == kLqErrNotConnected;
      ObEvent().Debug(kTag, "client %s: session over: %s", who.c_str(),
                      tookLeave ? "goodbye" : error.AsString());
    }
  }
}
