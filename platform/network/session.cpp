#include "platform/network/session.h"

#include <openssl/crypto.h>

#include "platform/network/attach_request.h"
#include "platform/network/message_observer.h"

namespace {

// For the small frames that are sent without a time-out of the caller's: an answer, a refusal.
constexpr int kShortFrameSeconds = 120;

// A reason is for people; longer ones are cut, on both sides.
constexpr std::size_t kMaxReasonBytes = 1024;

std::string shortened(const std::string& reason) {
  return reason.substr(0, kMaxReasonBytes);
}

Deadline shortFrameDeadline() {
  return Deadline::in(kShortFrameSeconds);
}

CWmError notAttached() {
  return {kLqErrNotConnected, "not attached"};
}

// The message's text form, wiped at the end: it holds protected strings in clear.
struct ClearText {
  ClearText() = default;
  ~ClearText() { OPENSSL_cleanse(text.data(), text.size()); }
  ClearText(const ClearText&) = delete;
  ClearText& operator=(const ClearText&) = delete;
  std::string text;
};

}  // namespace

CWmError CLqNetwork::Impl::attach(const std::string& targetText, const lqsExecuteRemoteDllType& remoteLibrary,
                                  const std::string& localName, const Deadline& deadline) {
  peerName.clear();
  peerText = "the server";
  Target target;
  CWmError error = parseTarget(targetText, target);
  if (error.IsError()) return error;
  peerText = target.host;

  AttachRequest request;
  request.version = kAttachProtocolVersion;
  request.library = std::string(remoteLibrary.libraryName);
  request.entry = std::string(remoteLibrary.entryName);
  request.caller = localName;
  std::string requestText;
  if (!request.namesFit() || request.serialize(requestText, false) != 0)
    return {kLqErrBadTarget, "the name of this machine cannot be sent"};

  Credentials credentials;
  if (ownCredentials != nullptr) {
    credentials.identity = ownCredentials->identity;
    credentials.key = ownCredentials->key;
  } else {
    error = readCredentials(credentials);
    if (error.IsError()) return error;
  }
  if (credentials.key.size() != kSessionKeyBytes)
    return {kLqErrNoCredentials, "the session key is not usable"};

  frames = std::make_unique<FrameStream>(TlsPsk::ofCaller(credentials), FrameBudget::ofCalling());
  error = frames->connection().connect(target, deadline);
  if (error.IsError()) return error;
  peerText = target.host + " (" + frames->connection().address() + ")";
  error = frames->connection().handshake(deadline);
  if (error.IsError()) return error;
  error = frames->send(FrameKind::kAttachRequest, requestText, deadline);
  if (error.IsError()) return error;
  error = awaitAttachReply(deadline);
  if (error.IsError()) return error;

  frames->setAttached();
  state = State::kAttached;
  peerName = target.host;
  return {};
}

CWmError CLqNetwork::Impl::awaitAttachReply(const Deadline& deadline) {
  Frame frame;
  CWmError error = frames->receive(frame, deadline);
  if (error.IsError()) return error;
  switch (frame.kind) {
    case FrameKind::kAttachConfirmed:
      return {};
    case FrameKind::kAttachRefused:
      return {kLqErrAttachRefused, "refused: " + shortened(frame.payload)};
    case FrameKind::kGoodbye:
      return answerGoodbye();
    default:
      return unexpected(frame);
  }
}

CWmError CLqNetwork::Impl::tryAccept(Waiting& waiting) {
  if (state == State::kAccepted) {
    CWmError error = frames->connection().tryHandshake(waiting);
    const bool isOver = error.IsError() || waiting == Waiting::kNothing;
    const std::string& identity = frames->connection().identity();
    if (isOver && !identity.empty()) peerText = identity.substr(0, kMaxIdentityBytes) + " (" + peerText + ")";
    if (error.IsError() || !isOver) return error;
    peerName = identity;
    state = State::kProven;
  }
  Frame frame;
  CWmError error = frames->tryReceive(frame, waiting);
  return error.IsError() || waiting != Waiting::kNothing ? error : readAttachRequest(frame);
}

CWmError CLqNetwork::Impl::readAttachRequest(const Frame& frame) {
  if (frame.kind != FrameKind::kAttachRequest) return unexpected(frame);
  registerMessageClasses<AttachRequest>();
  AttachRequest request;
  std::string reason;
  if (request.unserialize(frame.payload, &reason) != 0 || !request.namesFit())
    return {kLqErrProtocol, "the attach request cannot be read: " + reason};
  if (request.version.get() != kAttachProtocolVersion) {
    const std::string text = "version " + std::to_string(request.version.get()) +
                             " of the protocol is not spoken here, only version " +
                             std::to_string(kAttachProtocolVersion);
    // Nobody may wait here; but so short a text always fits into a socket that nothing was written to.
    static_cast<void>(frames->send(FrameKind::kAttachRefused, text, Deadline::in(0)));
    return {kLqErrProtocol, text};
  }
  asked.setNames(request.library, request.entry);
  askedBy = request.caller.get();
  hasAsked = true;
  state = State::kAsked;
  return {};
}

CWmError CLqNetwork::Impl::tryRequest(Waiting& waiting) {
  CWmError error = frames->tryReceive(received, waiting);
  hasReceived = !error.IsError() && waiting == Waiting::kNothing;
  return error;
}

void CLqNetwork::Impl::giveUp(const CWmError& error) {
  close();
  givenUp = error;
}

CWmError CLqNetwork::Impl::acceptAttach(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName) {
  if (!hasAsked) return givenUp.IsError() ? givenUp : CWmError(kLqErrNotConnected, "no caller waits here");
  remoteLibrary = asked;
  callerName = askedBy;
  return {};
}

CWmError CLqNetwork::Impl::confirmAttach() {
  if (state != State::kAsked) return {kLqErrNotConnected, "no caller waits for an answer"};
  CWmError error = frames->send(FrameKind::kAttachConfirmed, {}, shortFrameDeadline());
  if (error.IsError()) return error;
  frames->setAttached();
  state = State::kAttached;
  return {};
}

CWmError CLqNetwork::Impl::refuseAttach(const std::string& reason) {
  if (state != State::kAsked) return {};
  CWmError error = frames->send(FrameKind::kAttachRefused, shortened(reason), shortFrameDeadline());
  if (!error.IsError()) frames->connection().shutdown();
  return error;
}

CWmError CLqNetwork::Impl::sendMessage(const CNMessageBase& message, const Deadline& deadline) {
  if (state != State::kAttached) return notAttached();
  ClearText clear;
  if (message.serialize(clear.text, true) != 0)
    return {kLqErrBadMessage, std::string(message.className()) + " cannot be written as text"};
  CWmError error = frames->send(FrameKind::kMessage, clear.text, deadline);
  if (error.IsError()) return error;
  observe({WireEvent::Kind::kSent, &message, {}, nullptr});
  return {};
}

CWmError CLqNetwork::Impl::nextFrame(Frame& frame, const Deadline& deadline) {
  if (!hasReceived) return frames->receive(frame, deadline);
  hasReceived = false;
  frame.swap(received);
  held = std::move(frame.claim);  // a request's records live until the session is back in its room
  return {};
}

CWmError CLqNetwork::Impl::receiveMessage(std::string* rawText, std::unique_ptr<CNMessageBase>& message,
                                          const Deadline& deadline) {
  if (givenUp.IsError()) return givenUp;
  if (state != State::kAttached) return notAttached();
  Frame frame;
  CWmError error = nextFrame(frame, deadline);
  if (error.IsError()) return error;
  switch (frame.kind) {
    case FrameKind::kMessage:
      break;
    case FrameKind::kRequestRefused:
      observe({WireEvent::Kind::kRefused, nullptr, shortened(frame.payload), nullptr});
      return {kLqErrRequestRefused, "request refused: " + shortened(frame.payload)};
    case FrameKind::kGoodbye:
      return answerGoodbye();
    default:
      return unexpected(frame);
  }
  if (frame.isDropped)
    return {kLqErrBadMessage, "there was no memory for so large a message in time; send it again later"};
  if (rawText != nullptr) *rawText = frame.payload;
  error = CNMessageBase::fromBuffer(frame.payload, message);
  if (error.IsError()) return {kLqErrBadMessage, error.AsString()};
  std::string reason;
  observe({WireEvent::Kind::kReceived, message.get(), {}, &reason});
  if (reason.empty()) return {};
  message.reset();
  if (rawText != nullptr) rawText->clear();
  return {kLqErrDeclined, "declined: " + reason};
}

CWmError CLqNetwork::Impl::sendRefusal(const std::string& reason) {
  if (state != State::kAttached) return notAttached();
  return frames->send(FrameKind::kRequestRefused, shortened(reason), shortFrameDeadline());
}

CWmError CLqNetwork::Impl::sayGoodbye(const Deadline& deadline) {
  CWmError error = frames->send(FrameKind::kGoodbye, {}, deadline);
  // What the peer sent before its answer has nobody left to read it, except a refusal of what it was sent
  // last: whoever watches this session has to know that it came to nothing.
  while (!error.IsError()) {
    Frame frame;
    error = nextFrame(frame, deadline);
    if (frame.kind == FrameKind::kRequestRefused)
      observe({WireEvent::Kind::kRefused, nullptr, shortened(frame.payload), nullptr});
    if (frame.kind == FrameKind::kGoodbye) {
      frames->connection().shutdown();
      observe({WireEvent::Kind::kEnded, nullptr, {}, nullptr});
      break;
    }
  }
  return error;
}

CWmError CLqNetwork::Impl::awaitGoodbye(const Deadline& deadline) {
  CWmError error;
  while (!error.IsError()) {
    Frame frame;
    error = nextFrame(frame, deadline);
    if (frame.kind == FrameKind::kGoodbye) {
      static_cast<void>(answerGoodbye());  // that the session has ended is no error here
      break;
    }
  }
  return error;
}

CWmError CLqNetwork::Impl::answerGoodbye() {
  if (!frames->send(FrameKind::kGoodbye, {}, shortFrameDeadline()).IsError()) frames->connection().shutdown();
  close();
  return {kLqErrNotConnected, "the peer has ended the session"};
}

CWmError CLqNetwork::Impl::unexpected(const Frame& frame) {
  close();
  return {kLqErrProtocol,
          "a frame of kind " + std::to_string(static_cast<unsigned>(frame.kind)) + " has no place here"};
}
