// CLqNetwork: one network session with a remote library, and LqListener, the accepting side.
//
// A session is TCP with TLS 1.3, authenticated by a key that both sides share; over it go length-prefixed
// frames, one message each (docs/wire.md). The caller attaches by naming a remote library and entry and
// itself, and is told yes, or no with a reason. Both ends use this class: one is built empty and attached,
// the other is built by LqListener from an accepted socket.
//
// A session is used by one thread at a time, and may move from one to another. Nothing is thrown: an
// operation returns a CWmError, which is also kept as the session's last error. Time-outs are whole seconds,
// -1 means no limit; attach and disconnect obey theirs in full, name resolution aside. No wait outlasts
// kSilenceLimitSeconds without a byte. A real platform library provides Attach_RemoteDLL to ReplyDisconnect
// and MangleHostName; the accepting side and the observer are what this layer's own programs need.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"

// The remote-library record: which library and which entry of it the server is asked for.
struct lqsExecuteRemoteDllType {
  int number = 0;              // 0 is the only value in use
  char libraryName[257] = {};  // NUL-terminated
  char entryName[257] = {};

  LQ_EXPORT void setNames(const std::string& library, const std::string& entry);  // cut at 256 characters
};

// The text that Attach_RemoteDLL takes as its target: a server's host name, its client name and its two
// service ports, tried in that order.
LQ_EXPORT std::string MangleHostName(const std::string& host, const std::string& client,
                                     std::uint16_t firstPort, std::uint16_t secondPort);

// The management server's service ports.
inline constexpr std::uint16_t kFirstServicePort = 8400;
inline constexpr std::uint16_t kSecondServicePort = 8402;

// The bound on a frame, once a caller is attached.
inline constexpr std::size_t kMaxMessageFrameBytes = 64U << 20;

// What large frames may hold of a process's memory together, on the accepting and on the calling side each:
// two of the largest, so that a slow one does not stop everybody. Whoever finds it used up waits.
inline constexpr std::size_t kFrameBudgetBytes = 2 * kMaxMessageFrameBytes;

// After so long without a byte a connection counts as lost, also where a call sets no limit: no server works
// on an answer for ten minutes.
inline constexpr int kSilenceLimitSeconds = 600;

class LQ_EXPORT CLqNetwork {
 public:
  CLqNetwork();
  ~CLqNetwork();  // closes without a goodbye
  CLqNetwork(const CLqNetwork&) = delete;
  CLqNetwork& operator=(const CLqNetwork&) = delete;

  // --- the calling side ------------------------------------------------------------------------------------

  // Connects to `target` (MangleHostName), proves this client's identity with the session key that
  // `lqhost join` left in the registry ("Overhub"/"sSESSIONIDENTITY" and "sSESSIONKEY" of the current
  // instance) and attaches to the remote library. `localName` tells the server which machine calls.
  // `peerGone` is set to whether the connection was lost on the way.
  CWmError Attach_RemoteDLL(const std::string& target, const lqsExecuteRemoteDllType& remoteLibrary,
                            const std::string& localName, int timeoutSeconds, bool& peerGone);

  // Attaches with this identity and key (64 hexadecimal digits) instead of those in the registry. For the
  // server, which holds the keys of all its clients. An unusable key shows at Attach_RemoteDLL.
  void UseCredentials(const std::string& identity, const std::string& keyHex);

  // --- both sides, once attached ---------------------------------------------------------------------------

  bool IsConnected() const;

  // Sends one message, with protected strings in clear inside the encrypted session. The number is ignored.
  CWmError SendXMLMessage(const CNMessageBase& message, unsigned, int timeoutSeconds, bool& peerGone);

  // Receives one message of any registered class into `message`. `rawText`, if not null, gets the text as it
  // came. The protocol header must be null; the number is ignored. On any error `message` is empty. A peer
  // that says goodbye instead is kLqErrNotConnected; a peer that declines the request, kLqErrRequestRefused
  // with its reason.
  CWmError ReceiveXMLMessage(std::string* rawText, std::unique_ptr<CNMessageBase>& message,
                             const void* protocolHeader, unsigned, int timeoutSeconds, bool& peerGone);

  // Ends the session in order: says goodbye, which the peer answers once it has dealt with everything sent
  // before, and closes. With `peerGone` set, only closes.
  void Disconnect(int timeoutSeconds, bool& peerGone);

  // The same from the answering side: waits for the peer's goodbye, answers it, and closes.
  void ReplyDisconnect(int timeoutSeconds, bool& peerGone);

  // The peer: the server's host name on the calling side, the caller's identity on the accepting side.
  // False and empty when there is no peer yet.
  bool GetPeerName(std::string& name) const;

  // The address, without the port, that an accepted caller came from; empty on the calling side.
  std::string GetPeerAddress() const;

  // Code and text of the last failed operation; 0 and empty when there is none. The number is ignored.
  void GetLastErrorGenericText(std::uint32_t& code, std::string& text, int) const;

  // --- the accepting side ----------------------------------------------------------------------------------

  // Whether the caller waits for ConfirmAttach or RefuseAttach.
  bool IsAsking() const;

  // What the caller asks for, or, once it is attached, has asked for; never waits. When the caller has not
  // come so far, why it was turned away.
  CWmError AcceptAttach(lqsExecuteRemoteDllType& remoteLibrary, std::string& callerName);
  CWmError ConfirmAttach();
  void RefuseAttach(const std::string& reason);  // and closes

  // Declines a received request with a reason that the caller's ReceiveXMLMessage reports.
  CWmError SendRefusal(const std::string& reason);

  // A number that the accepting side keeps with a session from one request to the next; 0 at first.
  void SetTicket(std::int64_t ticket);
  std::int64_t GetTicket() const;

  // --- for hosts that stop ---------------------------------------------------------------------------------

  // Ends every wait of every session of this process, from any thread: what can be done without waiting is
  // still done, everything else fails with kLqErrStopping. For good: it is for a process that stops. A name
  // look-up under way is not ended.
  static void InterruptAll();

  // Replaces kSilenceLimitSeconds for this process, from the next wait on; for tests.
  static void SetSilenceLimit(std::chrono::milliseconds limit);

  // --- for hosts that report what went over the wire -------------------------------------------------------

  struct WireEvent {
    enum class Kind {
      kSent,      // a message left this process; what the peer made of it shows in what follows
      kReceived,  // a message came
      kRefused,   // the peer declined what was sent before, even if that is only heard at the goodbye
      kEnded,     // the peer answered the goodbye: it has dealt with everything sent before
    };
    Kind kind;
    const CNMessageBase* message = nullptr;  // what was sent or came; valid during the call
    std::string reason;                      // of a refusal
    // Where the observer may say why it declines what came, null for everything else. The receiving call then
    // fails with kLqErrDeclined and that reason, leaves no message to its caller, and the session goes on.
    std::string* decline = nullptr;
  };
  // An observer that throws has declined what came.
  using Observer = std::function<void(const WireEvent&)>;

  // Calls `observer` for every event of every session, on the thread that uses the session; an empty function
  // removes it. Set it while no session is in use.
  static void SetObserver(Observer observer);

 private:
  friend class LqListener;
  friend class WaitingRoom;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Accepts sessions on one address and port, and keeps them while there is nothing to do for them.
//
// Callers that still have to prove themselves and ask, and attached ones between two requests, wait in a room
// that costs no thread each: one thread watches them all. accept() hands a session out when there is
// something to do:
//
// clang-format off
//   while (auto session = listener.accept()) {            // from any number of threads
//     if (session->IsAsking()) {
//       session->AcceptAttach(remoteLibrary, callerName);  // and ConfirmAttach, or RefuseAttach
//     } else if (!session->AcceptAttach(...).IsError()) {  // else it was turned away: the error tells why
//       session->ReceiveXMLMessage(...);                   // does not wait; and answer
//     }
//     if (it goes on) listener.await(std::move(session));  // comes out again with its next request
//   }
// clang-format on
//
// Whoever holds a place without using it is dropped when others need it: only a caller that we have waited
// for longer than `patience`, the oldest of its address or identity first. The newest is never turned away;
// until somebody may be dropped, the room grows, as far as the process's descriptors go.
class LQ_EXPORT LqListener {
 public:
  // Finds the session key of an identity: true with the key's bytes (32) in `key` when it is known. Called on
  // the room's thread, one at a time; everybody waits for it, so it may read a small file, but not ask
  // another machine.
  using KeyLookup = std::function<bool(const std::string& identity, std::string& key)>;

  struct Limits {
    std::size_t callers = 2048;           // that have not attached yet, in all
    std::size_t callersPerAddress = 512;  // and from one address: as many machines may share one
    std::size_t waitingPerIdentity = 8;   // attached, without a request
    // Handed out at a time; a client has one or two pieces of work at once.
    std::size_t servedPerIdentity = 4;
    // That ask or have a request and wait to be handed out; beyond it the oldest is dropped, without a word.
    std::size_t readyPerIdentity = 64;
    // How long a caller may leave us waiting before it can be dropped: much longer than a packet travels.
    std::chrono::milliseconds patience{1000};
    std::chrono::milliseconds attachTime{10'000};   // from the connection to the attach request
    std::chrono::milliseconds requestTime{60'000};  // from one answer to the whole of the next request
    std::chrono::milliseconds turnTime{20'000};     // for memory to read a large request with
  };

  explicit LqListener(KeyLookup lookup) : LqListener(std::move(lookup), Limits()) {}
  LqListener(KeyLookup lookup, const Limits& limits);
  ~LqListener();  // stops
  LqListener(const LqListener&) = delete;
  LqListener& operator=(const LqListener&) = delete;

  CWmError open(const std::string& address, std::uint16_t port);

  // Waits for the next session that has something to do. Null once stop() was called, or turnAway() and the
  // last session has ended. Any thread, several at once.
  std::unique_ptr<CLqNetwork> accept();

  // Takes a session back until its next request comes. One that is not attached any more ends here.
  void await(std::unique_ptr<CLqNetwork> session);

  // Closes the port and drops whoever has not attached; attached sessions go on to their end. Any thread.
  void turnAway();

  // The same, and drops every session that waits; accept() returns null from now on. Any thread. Sessions
  // that are handed out stay with those who have them.
  void stop();

  // How many callers and sessions wait now, before and after their attach.
  struct Census {
    std::size_t callers = 0;
    std::size_t attached = 0;
  };
  Census census() const;

 private:
  std::shared_ptr<class WaitingRoom> room_;
  KeyLookup lookup_;
  Limits limits_;
};

// A session key as stored and handed out: 64 hexadecimal digits for 32 bytes. A new one is empty, which no
// side accepts as a key, when the system has no randomness.
inline constexpr std::size_t kSessionKeyBytes = 32;
LQ_EXPORT std::string newSessionKeyHex();
LQ_EXPORT bool sessionKeyFromHex(const std::string& hex, std::string& key);
