#include "overhub/server/serve_step.h"

#include <memory>
#include <string>

#include "lqregistry/ObDebug.h"
#include "overhub/server/service.h"
#include "overhub/store/hand_out.h"

namespace {

constexpr const char* kTag = "overhub::session";

// Where a client comes from is where it is called, unless a person has named another host; and which hand-out
// an acknowledgement would prove.
void noteArrival(CLqNetwork& network, const Store& store, const std::string& client) {
  std::int64_t proving = 0;
  const CWmError error = noteAttached(store, client, network.GetPeerAddress(), proving);
  if (error.IsError()) ObEvent().Error(kTag, "client %s: %s", client.c_str(), error.AsString());
  network.SetTicket(proving);
}

// Who calls, and what it asked for when it attached.
struct Client {
  std::string name;
  std::string who;  // for the log
  std::string wanted;
  const Service* service = nullptr;
};

CWmError identify(CLqNetwork& network, Client& client) {
  lqsExecuteRemoteDllType remote;
  std::string machine;
  CWmError error = network.AcceptAttach(remote, machine);
  if (error.IsError()) return error;
  network.GetPeerName(client.name);
  client.who = client.name + " on " + (machine.empty() ? "an unnamed machine" : machine);
  client.wanted = std::string(remote.libraryName) + "/" + remote.entryName;
  client.service = findService(remote.libraryName, remote.entryName);
  return error;
}

// Lets the caller in, if it asks for a service that there is.
bool attach(CLqNetwork& network, const Store& store, const Client& client) {
  if (client.service == nullptr) {
    ObEvent().Debug(kTag, "client %s refused: it asks for %s", client.who.c_str(), client.wanted.c_str());
    network.RefuseAttach("this server does not offer " + client.wanted);
    return false;
  }
  const CWmError error = network.ConfirmAttach();
  if (error.IsError()) {
    ObEvent().Debug(kTag, "%s", error.AsString());
    return false;
  }
  noteArrival(network, store, client.name);
  return true;
}

// False when the answer could not be sent, which ends the session.
bool answerRequest(CLqNetwork& network, const Store& store, const Client& client,
                   const CNMessageBase& message) {
  const Handler handler = client.service->find(message.getTagID());
  Caller caller{client.name, network.GetTicket()};
  const Answer answer = handler != nullptr
                            ? handler(store, caller, message)
                            : Answer::refused(std::string(message.className()) + " is not handled here");
  network.SetTicket(caller.handOut);
  CWmError error;
  bool peerGone = false;
  if (!answer.refusal.empty()) {
    error = network.SendRefusal(answer.refusal);
  } else if (answer.reply) {
    error = network.SendXMLMessage(*answer.reply, 0, kReplySeconds, peerGone);
  }
  ObEvent().Debug(kTag, "client %s: %s: %s%s%s", client.who.c_str(), message.className(),
                  answer.summary.c_str(), error.IsError() ? ", but " : "", error.AsString());
  return !error.IsError();
}

// False when the refusal could not be sent either.
bool refuseUnreadable(CLqNetwork& network, const std::string& who, const CWmError& error) {
  ObEvent().Debug(kTag, "client %s: refused: %s", who.c_str(), error.AsString());
  return !network.SendRefusal(error.AsString()).IsError();
}

}  // namespace

bool serveStep(CLqNetwork& network, const Store& store) {
  Client client;
  CWmError error = identify(network, client);
  if (error.IsError()) {
    // Strangers bring about failed handshakes at will; the listener sums them up.
    ObEvent().DebugLvl(error.GetCode() == kLqErrHandshake ? 3 : kLqLogDefaultLevel, kTag, "%s",
                       error.AsString());
    return false;
  }
  if (network.IsAsking()) return attach(network, store, client);

  std::unique_ptr<CNMessageBase> message;
  bool peerGone = false;
  error = network.ReceiveXMLMessage(nullptr, message, nullptr, 0, 0, peerGone);
  if (!error.IsError()) return answerRequest(network, store, client, *message);
  if (error.GetCode() == kLqErrBadMessage) return refuseUnreadable(network, client.who, error);
  const bool saidGoodbye = error.GetCode() == kLqErrNotConnected;
  ObEvent().Debug(kTag, "client %s: session over: %s", client.who.c_str(),
                  saidGoodbye ? "goodbye" : error.AsString());
  return false;
}
