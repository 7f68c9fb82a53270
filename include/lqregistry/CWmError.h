// CWmError: the outcome of one platform call, as a value: no error, or a code with a text for people.
//
// A real platform library provides the same three questions (is it an error, which code, which text); the
// codes below are this layer's own except kLqErrConnectionLost, which callers compare with.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

enum LqErrorCode : std::uint32_t {
  kLqErrNone = 0,
  // The peer vanished: reset, closed in the middle, or silent beyond what keep-alive tolerates. On this code,
  // whose value they fix, callers keep the stale connection object and reconnect at their next exchange.
  kLqErrConnectionLost = 0x9000058,
  kLqErrBadTarget = 0x9000101,       // the target text or the address cannot be used
  kLqErrConnect = 0x9000102,         // nobody listens, the host is unknown or unreachable
  kLqErrTimeout = 0x9000103,         // the time given for the step has passed
  kLqErrHandshake = 0x9000104,       // the TLS handshake failed: usually another session key
  kLqErrNoCredentials = 0x9000105,   // this machine holds no session key for the server
  kLqErrAttachRefused = 0x9000106,   // the server said no to library, entry or caller
  kLqErrProtocol = 0x9000107,        // a frame that the protocol does not allow here
  kLqErrFrameTooLarge = 0x9000108,   // a frame beyond the bound on size
  kLqErrBadMessage = 0x9000109,      // the XML is broken, of an unknown class, or holds a wrong number
  kLqErrRequestRefused = 0x900010A,  // the server understood the request and declined it, with a reason
  kLqErrNotConnected = 0x900010B,    // the operation needs an attached connection
  kLqErrStopping = 0x900010C,        // the process is stopping (CLqNetwork::InterruptAll)
  kLqErrDeclined = 0x900010D,  // what came was declined by this process's observer (CLqNetwork::Observer)
  kLqErrFile = 0x9000201,      // a file could not be opened, read or written
  kLqErrLibrary = 0x9000301,   // a library or a procedure in it could not be loaded
  kLqErrArgument = 0x9000401,  // what somebody wrote on a command line or to its input cannot be used
};

class [[nodiscard]] CWmError {
 public:
  CWmError() = default;
  CWmError(std::uint32_t code, std::string text) : code_(code), text_(std::move(text)) {}

  bool IsError() const { return code_ != kLqErrNone; }
  std::uint32_t GetCode() const { return code_; }
  // The text for people; empty without an error. Valid as long as this object.
  const char* AsString() const { return text_.c_str(); }

 private:
  std::uint32_t code_ = kLqErrNone;
  std::string text_;
};
