#include "lqregistry/CLqNetwork.h"

#include "platform/network/interruption.h"
#include "platform/network/session.h"
#include "platform/network/silence_limit.h"

CLqNetwork::CLqNetwork() : impl_(std::make_unique<Impl>()) {}

CLqNetwork::~CLqNetwork() = default;

CWmError CLqNetwork::Attach_RemoteDLL(const std::string& target, const lqsExecuteRemoteDllType& remoteLibrary,
                                      const std::string& localName, int timeoutSeconds, bool& peerGone) {
  impl_->close();
  CWmError error = impl_->run("cannot attach to ", peerGone, [&] {
    return impl_->attach(target, remoteLibrary, localName, Deadline::in(timeoutSeconds));
  });
  if (error.IsError()) impl_->close();
  return error;
}

void CLqNetwork::UseCredentials(const std::string& identity, const std::string& keyHex) {
  impl_->ownCredentials = std::make_unique<Credentials>();
  impl_->ownCredentials->identity = identity;
  sessionKeyFromHex(keyHex, impl_->ownCredentials->key);
}

void CLqNetwork::InterruptAll() {
  interruptAll();
}

void CLqNetwork::SetSilenceLimit(std::chrono::milliseconds limit) {
  setSilenceLimit(limit);
}

bool CLqNetwork::IsConnected() const {
  return impl_->state == Impl::State::kAttached && !impl_->frames->connection().closedByPeer();
}

CWmError CLqNetwork::SendXMLMessage(const CNMessageBase& message, unsigned, int timeoutSeconds,
                                    bool& peerGone) {
  return impl_->run("cannot send to ", peerGone,
                    [&] { return impl_->sendMessage(message, Deadline::in(timeoutSeconds)); });
}

CWmError CLqNetwork::ReceiveXMLMessage(std::string* rawText, std::unique_ptr<CNMessageBase>& message,
                                       const void* protocolHeader, unsigned, int timeoutSeconds,
                                       bool& peerGone) {
  message.reset();
  if (rawText != nullptr) rawText->clear();
  return impl_->run("cannot receive from ", peerGone, [&]() -> CWmError {
    if (protocolHeader != nullptr) return {kLqErrProtocol, "there are no protocol headers here"};
    return impl_->receiveMessage(rawText, message, Deadline::in(timeoutSeconds));
  });
}

void CLqNetwork::Disconnect(int timeoutSeconds, bool& peerGone) {
  if (!peerGone && impl_->state == Impl::State::kAttached) {
    // It ends either way; whoever wants to know how asks for the last error.
    static_cast<void>(impl_->run("cannot end the session with ", peerGone,
                                 [&] { return impl_->sayGoodbye(Deadline::in(timeoutSeconds)); }));
  }
  impl_->close();
}

void CLqNetwork::ReplyDisconnect(int timeoutSeconds, bool& peerGone) {
  if (!peerGone && impl_->state == Impl::State::kAttached) {
    static_cast<void>(impl_->run("no goodbye from ", peerGone, [&] {
      return impl_->awaitGoodbye(Deadline::in(timeoutSeconds));
    }));  // likewise
  }
  impl_->close();
}

bool CLqNetwork::GetPeerName(std::string& name) const {
  name = impl_->peerName;
  return !name.empty();
}

std::string CLqNetwork::GetPeerAddress() const {
  return impl_->peerAddress;
}

void CLqNetwork::GetLastErrorGenericText(std::uint32_t& code, std::string& text, int) const {
  code = impl_->lastError.GetCode();
  text = impl_->lastError.AsString();
}

void CLqNetwork::SetTicket(std::int64_t ticket) {
  impl_->ticket = ticket;
}

std::int64_t CLqNetwork::GetTicket() const {
  return impl_->ticket;
}

bool CLqNetwork::IsAsking() const {
  return impl_->state == Impl::State::kAsked;
}

CWmError CLqNetwork::AcceptAttach(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName) {
  bool peerGone = false;
  return impl_->run("no session with ", peerGone,
                    [&] { return impl_->acceptAttach(remoteLibrary, callerName); });
}

CWmError CLqNetwork::ConfirmAttach() {
  bool peerGone = false;
  return impl_->run("cannot confirm to ", peerGone, [&] { return impl_->confirmAttach(); });
}

void CLqNetwork::RefuseAttach(const std::string& reason) {
  bool peerGone = false;
  // A caller that cannot be told sees the connection end.
  static_cast<void>(impl_->run("cannot refuse ", peerGone, [&] { return impl_->refuseAttach(reason); }));
  impl_->close();
}

CWmError CLqNetwork::SendRefusal(const std::string& reason) {
  bool peerGone = false;
  return impl_->run("cannot decline the request of ", peerGone, [&] { return impl_->sendRefusal(reason); });
}
