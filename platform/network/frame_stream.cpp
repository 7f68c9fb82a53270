#include "platform/network/frame_stream.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/network/silence_limit.h"

namespace {

constexpr std::size_t kLengthBytes = sizeof(std::uint32_t);
constexpr std::size_t kKindBytes = 1;

// What is read at a time, at least; a payload gets memory as it arrives, so a header alone costs nothing.
constexpr std::size_t kPieceBytes = 16U << 10;

// What is taken in before others have their turn.
constexpr std::size_t kBytesAtOnce = 1U << 20;

constexpr std::size_t kReservedBytes = 8U << 20;

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
}

// Grows the payload without leaving a copy of what it held behind. Once it grows at all, memory for all but
// the largest frames is asked for at once: what is never touched costs a peer's promise nothing, and what has
// come is not copied again and again.
void grow(std::string& payload, std::size_t size, std::size_t whole) {
  if (size <= payload.capacity()) {
    payload.resize(size);
    return;
  }
  std::string larger;
  larger.reserve(payload.empty() ? size : std::max(size, std::min(whole, kReservedBytes)));
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

void Frame::swap(Frame& other) noexcept {
  std::swap(kind, other.kind);
  payload.swap(other.payload);
  claim.swap(other.claim);
  std::swap(isDropped, other.isDropped);
}

CWmError FrameStream::send(FrameKind kind, std::string_view payload, const Deadline& deadline) {
  const std::size_t length = kKindBytes + payload.size();
  if (length > bound_) return tooLarge(length, bound_);
  const std::uint32_t lengthSent = htonl(static_cast<std::uint32_t>(length));
  std::array<char, kHeaderBytes> header{};
  std::memcpy(header.data(), &lengthSent, kLengthBytes);
  header[kLengthBytes] = static_cast<char>(kind);

  CWmError error = connection_.write({header.data(), header.size()}, payload, deadline);
  usable_ = !error.IsError();
  return error;
}

CWmError FrameStream::readHeader(Waiting& waiting) {
  while (headerHave_ < header_.size()) {
    std::size_t got = 0;
    CWmError error =
        connection_.tryRead(header_.data() + headerHave_, header_.size() - headerHave_, got, waiting);
    headerHave_ += got;
    if (error.IsError() || waiting != Waiting::kNothing) return error;
  }
  if (frame_.kind != FrameKind{}) return {};  // taken apart before
  std::uint32_t lengthSent = 0;
  std::memcpy(&lengthSent, header_.data(), kLengthBytes);
  const std::size_t length = ntohl(lengthSent);
  if (length > bound_) return tooLarge(length, bound_);
  if (length < kKindBytes) return {kLqErrProtocol, "a frame without a kind"};
  frame_.kind = static_cast<FrameKind>(header_[kLengthBytes]);
  size_ = length - kKindBytes;
  return {};
}

bool FrameStream::hasTurn() {
  if (size_ <= kUnclaimedBytes || have_ < kUnclaimedBytes) return true;
  if (frame_.claim == nullptr) frame_.claim = budget_.claim(size_, turnCame_);
  return frame_.claim->isGranted();
}

CWmError FrameStream::readPayload(Waiting& waiting) {
  for (const std::size_t before = have_; have_ < size_;) {
    if (have_ - before >= kBytesAtOnce) {
      waiting = Waiting::kMore;
      return {};
    }
    if (!hasTurn()) {
      waiting = Waiting::kTurn;
      return {};
    }
    if (have_ == frame_.payload.size())
      grow(frame_.payload, std::min(size_, have_ + std::max(have_, kPieceBytes)), size_);
    std::size_t got = 0;
    CWmError error =
        connection_.tryRead(frame_.payload.data() + have_, frame_.payload.size() - have_, got, waiting);
    have_ += got;
    if (error.IsError() || waiting != Waiting::kNothing) return error;
  }
  return {};
}

CWmError FrameStream::dropOn(Waiting& waiting) {
  std::array<char, kPieceBytes> thrownAway;
  CWmError error;
  for (const std::size_t before = have_; have_ < size_;) {
    if (have_ - before >= kBytesAtOnce) {
      waiting = Waiting::kMore;
      break;
    }
    std::size_t got = 0;
    error = connection_.tryRead(thrownAway.data(), std::min(thrownAway.size(), size_ - have_), got, waiting);
    have_ += got;
    if (error.IsError() || waiting != Waiting::kNothing) break;
  }
  OPENSSL_cleanse(thrownAway.data(), thrownAway.size());
  return error;
}

void FrameStream::dropPayload() {
  frame_.isDropped = true;
  frame_.claim.reset();
  wipe(frame_.payload);
  std::string().swap(frame_.payload);
}

FrameStream::Claimed FrameStream::claimed() const {
  if (frame_.claim == nullptr || !frame_.claim->isGranted()) return {};
  return {Deadline::Clock::now() - frame_.claim->grantedAt(),
          static_cast<double>(have_) / static_cast<double>(size_)};
}

CWmError FrameStream::tryReceive(Frame& frame, Waiting& waiting) {
  CWmError error = readHeader(waiting);
  if (!error.IsError() && waiting == Waiting::kNothing)
    error = frame_.isDropped ? dropOn(waiting) : readPayload(waiting);
  usable_ = !error.IsError();
  if (error.IsError() || waiting != Waiting::kNothing) return error;
  Frame whole;
  whole.swap(frame_);
  whole.swap(frame);
  headerHave_ = have_ = size_ = 0;
  return {};
}

CWmError FrameStream::awaitStep(Waiting waiting, const Deadline& deadline) {
  if (waiting != Waiting::kTurn) return connection_.await(waiting, deadline);
  // Nothing is read meanwhile, so the wait counts as silence.
  if (frame_.claim->await(deadline.within(silenceLimitNow()))) return {};
  return {kLqErrTimeout, "there was no memory for a message of " + std::to_string(size_) + " bytes in time"};
}

CWmError FrameStream::receive(Frame& frame, const Deadline& deadline) {
  for (;;) {
    Waiting waiting{};
    CWmError error = tryReceive(frame, waiting);
    if (error.IsError() || waiting == Waiting::kNothing) return error;
    error = awaitStep(waiting, deadline);
    if (!error.IsError()) continue;
    // As long as nothing of a frame has come, nothing has happened to the stream.
    usable_ = error.GetCode() == kLqErrTimeout && headerHave_ == 0;
    return error;
  }
}
