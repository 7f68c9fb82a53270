// Frames over a TLS connection: a length, a kind and a payload each (docs/wire.md), with a bound on size.
//
// After a fault that leaves the place in the byte stream unknown the stream is no longer usable; what remains
// is to destroy it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/tls_connection.h"

enum class FrameKind : std::uint8_t {
  kAttachRequest = 1,
  kAttachConfirmed = 2,
  kAttachRefused = 3,
  kMessage = 4,
  kRequestRefused = 5,
  kGoodbye = 6,
};

struct Frame {
  Frame() = default;
  ~Frame();  // wipes the payload: messages carry secrets in clear
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  FrameKind kind{};
  std::string payload;
};

class FrameStream {
 public:
  explicit FrameStream(std::shared_ptr<const TlsPsk> psk) : connection_(std::move(psk)) {}

  TlsConnection& connection() { return connection_; }
  const TlsConnection& connection() const { return connection_; }

  // Raises the bound on a frame from what a caller may send before it is attached.
  void setAttached() { bound_ = kMaxMessageFrameBytes; }

  bool usable() const { return usable_; }

  CWmError send(FrameKind kind, std::string_view payload, const Deadline& deadline);

  // A time-out before the first byte of a frame leaves the stream usable.
  CWmError receive(Frame& frame, const Deadline& deadline);

 private:
  CWmError receiveHeader(FrameKind& kind, std::size_t& payloadBytes, const Deadline& deadline);

  TlsConnection connection_;
  std::size_t bound_ = kMaxAttachFrameBytes;
  bool usable_ = true;
};
