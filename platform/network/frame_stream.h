// Frames over a TLS connection: a length, a kind and a payload each (docs/wire.md), with a bound on size and
// a claim on memory for large ones.
//
// A frame may be received piece by piece, by whoever holds the stream at the time. After a fault that leaves
// the place in the byte stream unknown the stream is no longer usable; what remains is to destroy it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/frame_budget.h"
#include "platform/network/tls_connection.h"

// The bound on a frame before a caller is attached; kMaxMessageFrameBytes is that after.
inline constexpr std::size_t kMaxAttachFrameBytes = 64U << 10;

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
  void swap(Frame& other) noexcept;

  FrameKind kind{};
  std::string payload;
  std::unique_ptr<FrameBudget::Claim> claim;
  bool isDropped = false;  // there was no memory for its payload, which was read and thrown away
};

class FrameStream {
 public:
  // `turnCame` is called from another thread when a frame that waited for memory may go on.
  FrameStream(
      std::shared_ptr<const TlsPsk> psk, FrameBudget& budget, std::function<void()> turnCame = [] {})
      : connection_(std::move(psk)), budget_(budget), turnCame_(std::move(turnCame)) {}

  TlsConnection& connection() { return connection_; }
  const TlsConnection& connection() const { return connection_; }

  // Raises the bound on a frame from what a caller may send before it is attached.
  void setAttached() { bound_ = kMaxMessageFrameBytes; }

  bool usable() const { return usable_; }

  CWmError send(FrameKind kind, std::string_view payload, const Deadline& deadline);

  // Reads on as far as that is possible without waiting; `frame` is filled when `waiting` says kNothing.
  CWmError tryReceive(Frame& frame, Waiting& waiting);

  // The same, waiting. A time-out before the first byte of a frame leaves the stream usable.
  CWmError receive(Frame& frame, const Deadline& deadline);

  // How much of the frame under way has come, and whether it still waits for memory.
  std::size_t arrived() const { return headerHave_ + have_; }
  bool awaitsMemory() const { return frame_.claim != nullptr && !frame_.claim->isGranted(); }

  // Of the frame under way: throws away what is left of it instead of waiting for memory, ...
  void dropPayload();
  // ... and since when it has had memory, and how much of it has come, from 0 to 1. No time when it has none.
  struct Claimed {
    Deadline::Clock::duration elapsed{};
    double share{};
  };
  Claimed claimed() const;

 private:
  CWmError readHeader(Waiting& waiting);
  CWmError readPayload(Waiting& waiting);
  CWmError dropOn(Waiting& waiting);
  bool hasTurn();
  CWmError awaitStep(Waiting waiting, const Deadline& deadline);

  static constexpr std::size_t kHeaderBytes = 5;

  TlsConnection connection_;
  FrameBudget& budget_;
  std::function<void()> turnCame_;
  std::size_t bound_ = kMaxAttachFrameBytes;
  bool usable_ = true;

  // The frame under way.
  std::array<char, kHeaderBytes> header_{};
  std::size_t headerHave_ = 0;
  std::size_t size_ = 0;  // of the payload, once the header is there
  std::size_t have_ = 0;
  Frame frame_;
};
