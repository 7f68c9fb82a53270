// The state of one session and its steps; CLqNetwork is its face. A step gives the bare outcome, run() makes
// of it what the caller gets: a text that names the peer, the last error, and the flag for a lost peer.
#pragma once

#include <exception>
#include <memory>
#include <new>
#include <string>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/credentials.h"
#include "platform/network/frame_stream.h"

struct CLqNetwork::Impl {
  enum class State {
    kClosed,    // nothing, or not any more
    kAccepted,  // a caller's socket, before the handshake
    kProven,    // the caller has proven who it is, and has not asked yet
    kAsked,     // it has asked and waits for yes or no
    kAttached,
  };

  CWmError attach(const std::string& targetText, const lqsExecuteRemoteDllType& remoteLibrary,
                  const std::string& localName, const Deadline& deadline);
  CWmError acceptAttach(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName);
  CWmError confirmAttach();
  CWmError refuseAttach(const std::string& reason);
  CWmError sendMessage(const CNMessageBase& message, const Deadline& deadline);
  CWmError receiveMessage(std::string* rawText, std::unique_ptr<CNMessageBase>& message,
                          const Deadline& deadline);
  CWmError sendRefusal(const std::string& reason);
  CWmError sayGoodbye(const Deadline& deadline);
  CWmError awaitGoodbye(const Deadline& deadline);

  // For the room where an accepted session waits: goes on with handshake and attach request, or with the next
  // frame, as far as that is possible without waiting.
  CWmError tryAccept(Waiting& waiting);
  CWmError tryRequest(Waiting& waiting);
  // Closes; the session's next step on the thread that gets it fails with this.
  void giveUp(const CWmError& error);

  // Drops the connection, without a word to the peer.
  void close() {
    state = State::kClosed;
    held.reset();
    frames.reset();
  }

  // Runs `step`; nothing that it throws gets past here. `doing` and the peer open the text of a failure.
  template <class Step>
  CWmError run(const char* doing, bool& peerGone, Step step) {
    CWmError error;
    try {
      error = step();
      if (error.IsError()) error = {error.GetCode(), doing + peerText + ": " + error.AsString()};
    } catch (const std::bad_alloc&) {
      close();
      error = {kLqErrFrameTooLarge, "out of memory"};  // short enough to need none
    } catch (const std::exception& fault) {
      close();
      error = {kLqErrProtocol, fault.what()};
    }
    if (frames != nullptr && !frames->usable()) close();
    if (error.IsError()) lastError = error;
    peerGone = error.GetCode() == kLqErrConnectionLost;
    return error;
  }

  State state = State::kClosed;
  std::unique_ptr<FrameStream> frames;
  std::string peerName;
  std::string peerAddress;  // of an accepted caller
  std::string peerText;     // for texts: the peer's name and address as far as known
  CWmError lastError;
  std::unique_ptr<Credentials> ownCredentials;  // instead of the registry's

  // Of an accepted session: what it asked for; the request that the room has read, if it has; why the room
  // gave it up, if it did; and its place among those of its identity that are served.
  lqsExecuteRemoteDllType asked;
  std::string askedBy;
  bool hasAsked = false;
  Frame received;
  bool hasReceived = false;
  CWmError givenUp;
  std::shared_ptr<void> seat;
  std::int64_t ticket = 0;  // CLqNetwork.h
  // The memory that the request takes, until the session is back in its room.
  std::unique_ptr<FrameBudget::Claim> held;

 private:
  CWmError awaitAttachReply(const Deadline& deadline);
  CWmError readAttachRequest(const Frame& frame);
  CWmError nextFrame(Frame& frame, const Deadline& deadline);
  CWmError unexpected(const Frame& frame);
  CWmError answerGoodbye();
};
