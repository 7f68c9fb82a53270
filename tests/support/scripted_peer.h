// An own small speaker of the wire protocol, for playing a broken or hostile other end. It is written on
// OpenSSL and plain sockets, so that it shares no code, and no mistakes, with the platform's network room.
//
//   ScriptedPeer peer(address, 8400, "client1", keyHex, [](PeerSession& s) {
//     if (!s.acceptAttach()) return;
//     s.readFrame();                                  // the request
//     s.writeFrame(PeerSession::kMessage, "<broken");
//     s.waitForClose();
//   });
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace test_support {

struct PeerFrame {
  int kind = 0;  // 0: there was none, the other end closed
  std::string payload;
};

// A socket that is no more than that, for callers that never get as far as TLS.
class PlainSocket {
 public:
  PlainSocket();
  explicit PlainSocket(int descriptor) : descriptor_(descriptor) {}
  ~PlainSocket();  // closes without a goodbye
  PlainSocket(const PlainSocket&) = delete;
  PlainSocket& operator=(const PlainSocket&) = delete;

  // Connects, from this address of the machine; "0.0.0.0" is any.
  bool connectTo(const std::string& address, std::uint16_t port, const std::string& from = "0.0.0.0") const;
  void send(const std::string& bytes) const;
  // Whether the other end has not closed yet, as far as can be seen without waiting.
  bool isOpen() const;
  // Reads on until the other end closes.
  void waitForClose() const;
  // Closes so that the other end sees a reset.
  void reset() const;

 protected:
  int descriptor_;
};

// One connection, as the script sees it. Whatever fails just returns false or an empty frame: what matters is
// what the other end makes of it.
class PeerSession : public PlainSocket {
 public:
  enum Kind { kAttach = 1, kConfirm = 2, kRefuse = 3, kMessage = 4, kRefuseRequest = 5, kGoodbye = 6 };

  PeerSession(int descriptor, std::string identity, std::string keyHex);
  ~PeerSession();

  // A session as a caller, with the handshake done; null when that failed.
  static std::unique_ptr<PeerSession> call(const std::string& address, std::uint16_t port,
                                           const std::string& identity, const std::string& keyHex);

  // The server's handshake with identity and key, and one that shows a self-signed certificate instead.
  bool handshake(bool withCertificate = false);

  PeerFrame readFrame();
  void writeFrame(int kind, const std::string& payload = {});
  // What comes before the payload of a frame.
  static std::string frameHeader(int kind, std::size_t payloadBytes);
  void writeInTls(const std::string& bytes);  // any bytes inside the encrypted session

  // Handshake, attach request, yes; hands the request to whoever wants it.
  bool acceptAttach(const std::function<void(const std::string&)>& take = {});
  // Reads on until the other end says goodbye, and answers it; false when it closes instead.
  bool answerGoodbye();
  bool endsInOrder();  // with TLS's own word

 private:
  struct Tls;
  bool readExactly(std::string& bytes);

  std::string identity_;
  std::string keyHex_;
  std::unique_ptr<Tls> tls_;
};

// Listens, and runs the script on a thread of its own for one caller after the other.
class ScriptedPeer {
 public:
  using Script = std::function<void(PeerSession&)>;

  ScriptedPeer(const std::string& address, std::uint16_t port, std::string identity, std::string keyHex,
               Script script);
  ~ScriptedPeer();  // ends the script's connection and joins
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  // How many callers have come so far.
  int callers() const { return callers_; }

 private:
  void serve();

  std::string identity_;
  std::string keyHex_;
  Script script_;
  int listener_;
  std::atomic<int> callers_{0};
  std::mutex mutex_;  // guards what follows
  int current_ = -1;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace test_support
