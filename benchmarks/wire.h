// The session protocol at its barest, on plain sockets and the TLS library: what the floor calls with and the
// ready server answers with. Faults are exceptions.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct ssl_ctx_st;
struct ssl_st;

namespace bench {

inline constexpr unsigned short kPort = 8400;

enum class FrameKind : unsigned char { kNone = 0, kAttach = 1, kConfirm = 2, kMessage = 4, kGoodbye = 6 };

// Bytes as they come, into memory that nobody clears first. Kept from frame to frame.
class Buffer {
 public:
  // Room for `size` bytes; what was there is lost when it has to grow.
  char* room(std::size_t size);
  std::size_t size() const { return size_; }
  char* data() { return bytes_.get(); }
  std::string_view text() const { return {bytes_.get(), size_}; }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

// A frame as it goes over the wire, header and payload in one piece.
std::string frameOf(FrameKind kind, std::string_view payload);

// One connection; closes at its end.
class Wire {
 public:
  Wire(ssl_st* connection, int socket) : connection_(connection), socket_(socket) {}
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void send(const std::string& frame);
  // kNone when the other end has closed.
  FrameKind receive(Buffer& payload);
  // Says goodbye and waits for the other end's.
  void part();

 private:
  bool readExactly(char* bytes, std::size_t size);
  ssl_st* connection_;
  int socket_;
};

// One end with its key: makes connections, with one TLS context for all of them.
class Endpoint {
 public:
  enum class Role { kCaller, kServer };
  Endpoint(Role role, const std::string& identity, const std::string& keyHex);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // As a caller, attached; as a server, with the handshake done.
  std::unique_ptr<Wire> call(const std::string& address) const;
  std::unique_ptr<Wire> answer(int socket) const;

  struct Secret;

 private:
  std::unique_ptr<Secret> secret_;
  ssl_ctx_st* context_;
};

// A listening socket at this address.
int listenAt(const std::string& address);

}  // namespace bench
