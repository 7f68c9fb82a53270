// The state of one session and its steps; CLqNetwork is its face. A step gives the bare outcome, finish()
// makes of it what the caller gets: a text that names the peer, the last error, and the flag for a lost peer.
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
    kAsked,     // the caller has asked and waits for yes or no
    kAttached,
  };

  CWmError attach(const std::string& targetText, const lqsExecuteRemoteDllType& remoteLibrary,
                  const std::string& localName, const Deadline& deadline);
  CWmError acceptAttach(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName,
                        const Deadline& deadline);
  CWmError confirmAttach();
  CWmError refuseAttach(const std::string& reason);
  CWmError sendMessage(const CNMessageBase& message, const Deadline& deadline);
  CWmError receiveMessage(std::string* rawText, std::unique_ptr<CNMessageBase>& message,
                          const Deadline& deadline);
  CWmError sendRefusal(const std::string& reason);
  CWmError sayGoodbye(const Deadline& deadline);
  CWmError awaitGoodbye(const Deadline& deadline);

  // Drops the connection, without a word to the peer.
  void close() {
    state = State::kClosed;
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

 private:
  CWmError awaitAttachReply(const Deadline& deadline);
  CWmError readAttachRequest(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName,
                             const Deadline& deadline);
  CWmError unexpected(const Frame& frame);
  CWmError answerGoodbye();
};
