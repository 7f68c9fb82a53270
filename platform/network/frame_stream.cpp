#include "platform/network/frame_stream.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kKindBytes = 1;
constexpr std::size_t kHeaderBytes = kLengthBytes + kKindBytes;

// A payload gets memory as it arrives, at first this much, so that a header alone costs nobody anything.
constexpr std::size_t kFirstPieceBytes = 64U << 10;

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
}

// Grows the payload without leaving a copy of what it held behind.
void grow(std::string& payload, std::size_t size) {
  std::string larger;
  larger.reserve(size);
  larger = payload;
  larger.resize(size);
  payload.swap(larger);
  wipe(larger);
}

CWmError tooLarge(std::size_t size, std::size_t bound) {
  return {kLqErrFrameTooLarge,
          "a frame of " + std::to_string(size) + " bytes is beyond the bound of " + std::to_string(bound)};
}

}  // namespace

Frame::~Frame() {
  wipe(payload);
}

CWmError FrameStream::send(FrameKind kind, std::string_view payload, const Deadline& deadline) {
  const std::size_t length = kKindBytes + payload.size();
  if (length > bound_) return tooLarge(length, bound_);
  std::array<char, kHeaderBytes> header{};
  for (std::size_t i = 0; i < kLengthBytes; ++i)
    header[i] = static_cast<char>(length >> (8 * (kLengthBytes - 1 - i)) & 0xFF);
  header[kLengthBytes] = static_cast<char>(kind);

  usable_ = false;
  CWmError error = connection_.write({header.data(), header.size()}, payload, deadline);
  usable_ = !error.IsError();
  return error;
}

CWmError FrameStream::receiveHeader(FrameKind& kind, std::size_t& payloadBytes, const Deadline& deadline) {
  std::array<char, kHeaderBytes> header{};
  std::size_t got = 0;
  CWmError error = connection_.read(header.data(), header.size(), got, deadline);
  if (error.IsError()) {
    usable_ = error.GetCode() == kLqErrTimeout && got == 0;
    return error;
  }
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i) length = length << 8 | static_cast<unsigned char>(header[i]);
  if (length > bound_) return tooLarge(length, bound_);
  if (length < kKindBytes) return {kLqErrProtocol, "a frame without a kind"};
  kind = static_cast<FrameKind>(header[kLengthBytes]);
  payloadBytes = length - kKindBytes;
  return {};
}

CWmError FrameStream::receive(Frame& frame, const Deadline& deadline) {
  usable_ = false;
  std::size_t size = 0;
  CWmError error = receiveHeader(frame.kind, size, deadline);
  if (error.IsError()) return error;

  for (std::size_t have = 0; have < size;) {
    const std::size_t piece = std::min(size - have, std::max(have, kFirstPieceBytes));
    grow(frame.payload, have + piece);
    std::size_t got = 0;
    error = connection_.read(frame.payload.data() + have, piece, got, deadline);
    if (error.IsError()) return error;
    have += piece;
  }
  usable_ = true;
  return {};
}
