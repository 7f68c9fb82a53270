// The session from both ends over loopback, and each end against a peer that breaks the rules.

#include <algorithm>
#include <future>
#include <list>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObLog.h"
#include "platform/network/frame_stream.h"
#include "tests/support/expectations.h"
#include "tests/support/scripted_peer.h"

namespace {

struct Note : MessageClass<Note, 99, 1> {
  static constexpr const char* kClassName = "Test.Note";
  Field<std::string, 1, 1> text;
  Field<pstring, 2, 2> secret;
  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Note::text>("text"), field<&Note::secret>("secret")};
    return list;
  }
};

Note noteOf(const std::string& text) {
  Note note;
  note.text = text;
  return note;
}

constexpr std::uint16_t kFirstPort = 8400;
constexpr std::uint16_t kSecondPort = 8402;
constexpr int kPatience = 60;  // seconds; for steps that are expected to succeed
constexpr char kIdentity[] = "client1";
constexpr char kKey[] = "00112233445566778899aabbccddeeff00112233445566778899AABBCCDDEEFF";
constexpr char kOtherKey[] = "0000000000000000000000000000000000000000000000000000000000000000";

bool findKey(const std::string& identity, std::string& key) {
  return identity == kIdentity && sessionKeyFromHex(kKey, key);
}

void expectError(const CWmError& error, std::uint32_t code, const std::string& part) {
  EXPECT_EQ(error.GetCode(), code) << error.AsString();
  EXPECT_TRUE(contains(error.AsString(), part)) << error.AsString();
}

// The accepting side as a program would use it: a few threads serve whichever session has something to do.
// Entry "refuse" is refused; a note with the text "decline" is declined, any other sent back.
class EchoServer {
 public:
  EchoServer(const std::string& address, std::uint16_t port, const LqListener::Limits& limits = {})
      : listener(findKey, limits) {
    EXPECT_STREQ(listener.open(address, port).AsString(), "");
    for (int i = 0; i < 2; ++i) {
      threads_.emplace_back([this] {
        while (auto session = listener.accept()) serve(std::move(session));
      });
    }
  }
  ~EchoServer() { stop(); }

  void stop() {
    listener.stop();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  // How callers were turned away and sessions ended so far, in order; complete after stop().
  std::vector<CWmError> outcomes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_;
  }

  // Waits for so many, stops, and compares them.
  void expectOutcomes(const std::vector<std::pair<std::uint32_t, std::string>>& expected) {
    awaitOutcomes(expected.size());
    stop();
    ASSERT_EQ(outcomes_.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
      expectError(outcomes_[i], expected[i].first, expected[i].second);
  }

  void awaitOutcomes(std::size_t count) {
    while (outcomes().size() < count) std::this_thread::yield();
  }

  // Waits until so many wait before and after their attach.
  void awaitCensus(std::size_t callers, std::size_t attached) const {
    for (auto now = listener.census(); now.callers != callers || now.attached != attached;
         now = listener.census())
      std::this_thread::yield();
  }

  LqListener listener;

 private:
  void serve(std::unique_ptr<CLqNetwork> session) {
    const CWmError outcome = step(*session);
    if (!outcome.IsError()) return listener.await(std::move(session));
    const std::lock_guard<std::mutex> lock(mutex_);
    outcomes_.push_back(outcome);
  }

  static CWmError step(CLqNetwork& session) {
    lqsExecuteRemoteDllType remote;
    std::string caller;
    CWmError error = session.AcceptAttach(remote, caller);
    if (error.IsError()) return error;
    std::string identity;
    EXPECT_TRUE(session.GetPeerName(identity));
    EXPECT_EQ(identity + "/" + caller + "/" + remote.libraryName, "client1/machine1/sLNTEST");
    if (session.IsAsking() && std::string(remote.entryName) == "refuse") {
      session.RefuseAttach("no such entry here");
      return {};
    }
    if (session.IsAsking()) return session.ConfirmAttach();
    bool gone = false;
    std::unique_ptr<CNMessageBase> message;
    error = session.ReceiveXMLMessage(nullptr, message, nullptr, 0, 0, gone);
    if (error.GetCode() == kLqErrBadMessage) return session.SendRefusal(error.AsString());
    if (error.IsError()) return error;
    const bool decline = messageAs<Note>(message.get())->text.get() == "decline";
    return decline ? session.SendRefusal("not today") : session.SendXMLMessage(*message, 0, -1, gone);
  }

  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::vector<CWmError> outcomes_;
};

class NetworkTest : public testing::Test {
 protected:
  NetworkTest() : address(uniqueLoopbackAddress()) {
    registerMessageClasses<Note>();
    lqregistry::UseFile(folder / "registry.db");
    LQPI_Focus::setFocus("Instance001");
    join(kIdentity, kKey);
  }

  static void join(const std::string& identity, const std::string& key) {
    LQPlatformInfo info;
    info.setString("Overhub", "sSESSIONIDENTITY", identity, 0);
    info.setString("Overhub", "sSESSIONKEY", key, 0);
  }

  CWmError attach(CLqNetwork& caller, int seconds = kPatience, const std::string& entry = "sLPTEST",
                  const std::string& target = "") {
    lqsExecuteRemoteDllType remote;
    remote.setNames("sLNTEST", entry);
    const std::string usual = MangleHostName(address, "server1", kFirstPort, kSecondPort);
    return caller.Attach_RemoteDLL(target.empty() ? usual : target, remote, "machine1", seconds, gone);
  }
  CWmError attachTo(const std::string& target) { return attach(network, kPatience, "sLPTEST", target); }
  CWmError receive(CLqNetwork& caller, int seconds, std::string* raw = nullptr) {
    return caller.ReceiveXMLMessage(raw, message, nullptr, 0, seconds, gone);
  }
  CWmError exchange(CLqNetwork& caller, const Note& sent, std::string* raw = nullptr) {
    const CWmError error = caller.SendXMLMessage(sent, 0, kPatience, gone);
    return error.IsError() ? error : receive(caller, kPatience, raw);
  }
  ScriptedPeer playing(const ScriptedPeer::Script& script, std::uint16_t port = kFirstPort) const {
    return {address, port, kIdentity, kKey, script};
  }
  // One that attaches everybody first.
  ScriptedPeer attaching(const ScriptedPeer::Script& script) const {
    return playing([script](PeerSession& s) {
      if (s.acceptAttach()) script(s);
    });
  }
  // A fresh caller attaches, gets an echo and leaves.
  void expectGoodExchange() {
    CLqNetwork caller;
    ASSERT_STREQ(attach(caller).AsString(), "");
    ASSERT_FALSE(exchange(caller, noteOf("hello")).IsError());
    EXPECT_TRUE(message->equals(noteOf("hello")));
    caller.Disconnect(kPatience, gone);
    EXPECT_FALSE(gone);
  }

  TempDir folder;
  std::string address;
  CLqNetwork network;
  std::unique_ptr<CNMessageBase> message;  // the last one received
  bool gone = false;
};

TEST_F(NetworkTest, SessionCarriesMessagesBothWaysUntilGoodbye) {
  EchoServer server(address, kFirstPort);
  const CWmError attached = attach(network);
  ASSERT_FALSE(attached.IsError()) << attached.AsString();
  EXPECT_TRUE(network.IsConnected());

  Note large;
  std::string& text = large.text.edit();
  while (text.size() < (1U << 20)) text += static_cast<char>(1 + text.size() % 255);
  large.secret = pstring("a secret");
  std::string raw;
  ASSERT_FALSE(exchange(network, large, &raw).IsError());
  EXPECT_TRUE(message->equals(large));
  std::string expectedRaw;
  large.serialize(expectedRaw, true);
  EXPECT_TRUE(raw == expectedRaw);

  expectSleeping();
  expectError(exchange(network, noteOf("decline"), &raw), kLqErrRequestRefused, "not today");
  EXPECT_TRUE(network.IsConnected() && message == nullptr && raw.empty());

  // The observer declines what it does not want, and what it fails to look at.
  for (const bool throws : {false, true}) {
    CLqNetwork::SetObserver([throws, self = std::this_thread::get_id()](const CLqNetwork::WireEvent& event) {
      if (event.decline == nullptr || std::this_thread::get_id() != self) return;  // the server takes it
      if (throws) throw std::runtime_error("no memory for that");
      *event.decline = "not that";
    });
    expectError(exchange(network, noteOf("hello"), &raw), kLqErrDeclined,
                throws ? "no memory for that" : "not that");
    EXPECT_TRUE(network.IsConnected() && message == nullptr && raw.empty());
  }
  CLqNetwork::SetObserver({});
  EXPECT_STREQ(exchange(network, noteOf("hello"), &raw).AsString(), "");

  network.Disconnect(kPatience, gone);
  EXPECT_FALSE(gone || network.IsConnected());
  expectError(network.SendXMLMessage(large, 0, -1, gone), kLqErrNotConnected, "not attached");
  server.expectOutcomes({{kLqErrNotConnected, "ended the session"}});
}

TEST_F(NetworkTest, RefusedAttachGivesTheReasonAndTheObjectCanAttachAgain) {
  EchoServer server(address, kSecondPort);  // nobody on the first port
  expectError(attach(network, kPatience, "refuse"), kLqErrAttachRefused, "no such entry here");
  EXPECT_FALSE(gone || network.IsConnected());
  EXPECT_FALSE(attach(network).IsError());
  EXPECT_TRUE(network.IsConnected());
  std::string peer;
  EXPECT_TRUE(network.GetPeerName(peer));
  EXPECT_TRUE(attach(network, kPatience, "refuse").IsError());
  EXPECT_FALSE(network.GetPeerName(peer)) << "an old one";
}

TEST_F(NetworkTest, AddressesOfBothFamiliesAndNamesAreTargets) {
  const auto port = static_cast<std::uint16_t>(20000 + getpid() % 10000);
  const std::pair<const char*, const char*> places[] = {{"::1", "::1"}, {"localhost", "127.0.0.1"}};
  for (const auto& [host, listenAt] : places) {
    if (LqListener(findKey).open(listenAt, port).IsError()) continue;  // a machine without this family
    EchoServer server(listenAt, port);
    EXPECT_STREQ(attachTo(MangleHostName(host, "s", port, port)).AsString(), "");
  }
}

TEST_F(NetworkTest, WhatPreventsTheConnectionIsNamed) {
  expectError(attach(network), kLqErrConnect,
              address + " port 8400: Connection refused; " + address + " port 8402: Connection refused");
  expectError(attachTo("host*client*8400"), kLqErrBadTarget, "the server: \"host*client*8400");
  expectError(attachTo("no host has this name*client*8400*8402"), kLqErrConnect, "no host has");

  for (const std::string& bad : {std::string("00ff"), std::string(66, '0'), std::string(63, '0') + 'g'}) {
    join(kIdentity, bad);
    expectError(attach(network), kLqErrNoCredentials, "damaged");
  }
  lqregistry::UseFile(folder / "empty.db");
  expectError(attach(network), kLqErrNoCredentials, "lqhost join");
  lqregistry::UseFile(folder.path());  // a registry that cannot be read is not mended by joining anew
  expectError(attach(network), kLqErrNoCredentials, "no session key for the server: it is not a file");
  EXPECT_FALSE(gone);

  LqListener listener(findKey);
  LqListener second(findKey);
  expectError(listener.open("no address", kFirstPort), kLqErrBadTarget, "no address port 8400");
  EXPECT_EQ(listener.accept(), nullptr);
  ASSERT_FALSE(listener.open(address, kFirstPort).IsError());
  expectError(second.open(address, kFirstPort), kLqErrConnect,
              address + " port 8400: Address already in use");
}

TEST_F(NetworkTest, OnlyAServerWithTheSameKeyIsTrustedAndUnknownCallersLookLikeWrongKeys) {
  {
    EchoServer server(address, kFirstPort);
    join(kIdentity, kOtherKey);
    const CWmError wrongKey = attach(network);
    expectError(wrongKey, kLqErrHandshake, "the session key of this machine is not the one the server knows");
    join("nobody", kKey);
    EXPECT_STREQ(attach(network).AsString(), wrongKey.AsString());
    join(kIdentity, kKey);
    server.expectOutcomes(
        {{kLqErrHandshake, "): the caller's session key is not the one known for its identity"},
         {kLqErrHandshake, "nobody (127.0.0.1 port "}});
  }
  // An impostor that shows a certificate, and a good server on the other port that is not to be asked.
  ScriptedPeer impostor = playing([](PeerSession& s) {
    s.handshake(true);
    s.waitForClose();
  });
  ScriptedPeer good = playing([](PeerSession& s) { s.acceptAttach(); }, kSecondPort);
  expectError(attach(network), kLqErrHandshake, address + " port 8400");
  EXPECT_EQ(good.callers(), 0);
}

TEST_F(NetworkTest, SilentPeersAreGivenUpAndOnlyACutFrameCostsTheSession) {
  {
    ScriptedPeer mute = playing([](PeerSession& s) { s.waitForClose(); });
    expectError(attach(network, 1), kLqErrTimeout, address);
    EXPECT_FALSE(network.IsConnected());
  }
  ScriptedPeer slow = attaching([](PeerSession& s) {
    s.readFrame();
    s.writeInTls(std::string("\0\0\0", 3));
    s.waitForClose();
  });
  ASSERT_FALSE(attach(network).IsError());
  expectError(receive(network, 0), kLqErrTimeout, address);
  EXPECT_TRUE(network.IsConnected());
  ASSERT_FALSE(network.SendXMLMessage(noteOf("go on"), 0, kPatience, gone).IsError());
  while (network.IsConnected())  // until a part of the frame is there
    expectError(receive(network, 0), kLqErrTimeout, address);
}

// --- each end against a peer that breaks the rules ---------------------------------------------------------

struct Fault {
  const char* name;
  ScriptedPeer::Script script;
  std::uint32_t code;
  const char* text;
  bool connectedAfterwards = false;
};
ScriptedPeer::Script reply(int kind, const std::string& payload = {}) {
  return [=](PeerSession& s) { s.writeFrame(kind, payload); };
}
ScriptedPeer::Script bytes(const std::string& inTls) {
  return [=](PeerSession& s) { s.writeInTls(inTls); };
}

ScriptedPeer::Script resetting(const std::string& before = {}) {
  return [=](PeerSession& s) {
    if (!before.empty()) s.writeInTls(before);
    s.reset();
  };
}
ScriptedPeer::Script afterRequest(const ScriptedPeer::Script& script) {
  return [=](PeerSession& s) {
    if (s.handshake() && s.readFrame().kind == PeerSession::kAttach) script(s);
  };
}

using BrokenAttachTest = NetworkTest;
using BrokenReplyTest = NetworkTest;
using BrokenCallerTest = NetworkTest;

TEST_F(BrokenAttachTest, GivesItsCodeAndNoSession) {
  const Fault faults[] = {
      {"no TLS", [](PeerSession& s) { s.send("220 ready to serve\r\n"); }, kLqErrHandshake,
       "does not speak this protocol (wrong version number)"},
      {"reset after the request", afterRequest(resetting()), kLqErrConnectionLost, ""},
      {"goodbye", afterRequest(reply(PeerSession::kGoodbye)), kLqErrNotConnected, "ended the session"},
      {"message instead", afterRequest(reply(PeerSession::kMessage, "<a/>")), kLqErrProtocol, "kind 4"},
      // Within the bound for messages, which does not hold yet.
      {"oversized reason", afterRequest(bytes({"\0\x10\0\0\x3", 5})), kLqErrFrameTooLarge, "65536"}};
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    std::promise<void> left;
    ScriptedPeer peer = playing([&](PeerSession& s) {
      fault.script(s);
      s.waitForClose();
      left.set_value();
    });
    expectError(attach(network), fault.code, fault.text);
    left.get_future().wait();  // nothing stays open for as long as the object is there
    EXPECT_EQ(gone, fault.code == kLqErrConnectionLost);
    EXPECT_FALSE(network.IsConnected());
  }
}

TEST_F(BrokenReplyTest, GivesItsCodeAndLeavesTheSessionUsableOrClosed) {
  const Fault faults[] = {
      {"oversized header", bytes("\xff\xff\xff\xff\x4"), kLqErrFrameTooLarge, "4294967295"},
      {"zero length", bytes({"\0\0\0\0\x4", 5}), kLqErrProtocol, "without a kind"},
      {"unknown kind", reply(99), kLqErrProtocol, "kind 99"},
      {"cut frame", resetting({"\0\0\1\0\x4<Test", 10}), kLqErrConnectionLost, "cannot receive from"},
      {"reset", resetting(), kLqErrConnectionLost, "Connection reset by peer"},
      {"clear text in the middle", [](PeerSession& s) { s.send("HTTP/1.1 400 Bad\r\n\r\n"); }, kLqErrProtocol,
       "TLS fault"},
      {"goodbye", reply(PeerSession::kGoodbye), kLqErrNotConnected, "ended the session"},
      {"refusal", reply(PeerSession::kRefuseRequest, "busy"), kLqErrRequestRefused, "busy", true},
      {"broken XML", reply(PeerSession::kMessage, "<Test.Note text="), kLqErrBadMessage, "broken XML", true},
      {"unknown class", reply(PeerSession::kMessage, "<No.Such/>"), kLqErrBadMessage, "No.Such", true}};
  EchoServer server(address, kSecondPort);
  CLqNetwork bystander;  // on this thread as well
  ASSERT_FALSE(attach(bystander).IsError());
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    ScriptedPeer peer = attaching([&fault](PeerSession& s) {
      s.readFrame();
      fault.script(s);
      s.readFrame();
      s.writeFrame(PeerSession::kMessage, "<Test.Note text=\"still here\"/>");
      s.waitForClose();
    });
    ASSERT_FALSE(attach(network).IsError());
    message = std::make_unique<Note>();
    expectError(exchange(network, noteOf("question")), fault.code, fault.text);
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(gone, fault.code == kLqErrConnectionLost);
    EXPECT_EQ(network.IsConnected(), fault.connectedAfterwards);
    EXPECT_STREQ(exchange(bystander, noteOf("undisturbed")).AsString(), "");
    const CWmError again = exchange(network, noteOf("another"));
    EXPECT_EQ(again.GetCode(), fault.connectedAfterwards ? 0U : kLqErrNotConnected) << again.AsString();
  }
}

TEST_F(BrokenCallerTest, IsTurnedAwayAndDisturbsNobody) {
  const Fault faults[] = {
      {"message first", reply(PeerSession::kMessage, "<Test.Note/>"), kLqErrProtocol, "kind 4"},
      {"broken request", reply(PeerSession::kAttach, "<Session.Att"), kLqErrProtocol, "broken XML"},
      {"oversized request", bytes({"\0\1\0\1\1", 5}), kLqErrFrameTooLarge, "65537"},
      {"another version",
       [](PeerSession& s) {
         s.writeFrame(PeerSession::kAttach, "<Session.AttachRequest version=\"2\"/>");
         EXPECT_EQ(s.readFrame().kind, PeerSession::kRefuse);
       },
       kLqErrProtocol, "version 2"}};
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    EchoServer server(address, kFirstPort);
    auto caller = PeerSession::call(address, kFirstPort, kIdentity, kKey);
    ASSERT_NE(caller, nullptr);
    fault.script(*caller);
    expectGoodExchange();
    caller->waitForClose();
    caller.reset();
    server.awaitOutcomes(2);
    const std::vector<CWmError> outcomes = server.outcomes();
    ASSERT_EQ(outcomes.size(), 2U);
    expectError(outcomes[outcomes[0].GetCode() == kLqErrNotConnected ? 1 : 0], fault.code, fault.text);
  }
}

// --- the end of a session and of a listener ----------------------------------------------------------------

TEST_F(NetworkTest, VanishedPeersAreNoticedByWhoeverEndsTheSession) {
  ScriptedPeer peer = attaching([](PeerSession& s) {
    if (s.readFrame().kind == PeerSession::kMessage) s.reset();
  });
  for (const auto end : {&CLqNetwork::Disconnect, &CLqNetwork::ReplyDisconnect}) {
    ASSERT_FALSE(attach(network).IsError());
    ASSERT_FALSE(network.SendXMLMessage(noteOf("vanish"), 0, kPatience, gone).IsError());
    (network.*end)(kPatience, gone);
    EXPECT_TRUE(gone && !network.IsConnected());
  }
  // A session that is idle when its peer goes away is known to be lost before anything is sent.
  ASSERT_FALSE(attach(network).IsError());
  ASSERT_FALSE(network.SendXMLMessage(noteOf("vanish"), 0, kPatience, gone).IsError());
  while (network.IsConnected()) std::this_thread::yield();
  expectError(exchange(network, noteOf("vanish")), kLqErrConnectionLost, "cannot send to");
  expectError(exchange(network, noteOf("vanish")), kLqErrNotConnected, "not attached");
}

TEST_F(NetworkTest, ReplyDisconnectWaitsForTheGoodbyeAndAnswersIt) {
  bool answered = false;
  {
    ScriptedPeer peer = attaching([&](PeerSession& s) {
      s.writeFrame(PeerSession::kMessage, "<Test.Note/>");  // nobody reads it any more
      s.writeFrame(PeerSession::kGoodbye);
      answered = s.readFrame().kind == PeerSession::kGoodbye && s.endsInOrder();
    });
    ASSERT_FALSE(attach(network).IsError());
    network.ReplyDisconnect(kPatience, gone);
    EXPECT_FALSE(gone);
  }
  EXPECT_TRUE(answered);
}

TEST_F(NetworkTest, CallersWaitWhileDescriptorsAreShort) {
  LqListener::Limits limits;
  limits.patience = std::chrono::hours(1);  // so nobody makes room
  EchoServer server(address, kFirstPort, limits);
  const PlainSocket callers[2];
  network.UseCredentials(kIdentity, kKey);
  const oblog::Capture log;
  rlimit whole{};
  getrlimit(RLIMIT_NOFILE, &whole);
  const int lowest = dup(0);
  close(lowest);
  const rlimit few{static_cast<rlim_t>(lowest) + 1, whole.rlim_max};  // but a part of them is kept for others
  for (std::size_t present = 0; present < 2; ++present) {
    setrlimit(RLIMIT_NOFILE, &few);
    ASSERT_TRUE(callers[present].connectTo(address, kFirstPort));
    while (log.Lines().size() == present) std::this_thread::yield();
    expectSleeping();
    EXPECT_EQ(server.listener.census().callers, present);
    // The first caller has the only descriptor by now; a sanitizer would need one to look at memory.
    if (present == 1 && !kIsSanitized)
      expectError(attach(network), kLqErrConnect, "port 8400: Too many open files");
    setrlimit(RLIMIT_NOFILE, &whole);
    server.awaitCensus(present + 1, 0);
    ASSERT_EQ(log.Lines().size(), present + 1) << "one line each time";
    EXPECT_TRUE(contains(log.Lines()[present].text, "cannot take callers on " + address));
  }
}

// --- who waits, and who has to go --------------------------------------------------------------------------

class RoomTest : public NetworkTest {
 protected:
  // Attached by hand, so that it can be silent, slow or rude.
  std::unique_ptr<PeerSession> askingPeer() {
    auto peer = PeerSession::call(address, kFirstPort, kIdentity, kKey);
    if (peer == nullptr) return nullptr;
    std::string request =
        R"(<Session.AttachRequest version="1" library="sLNTEST" entry="e" caller="machine1")";
    request.append(kMaxAttachFrameBytes - 1 - request.size() - 2, ' ');  // as long as one may be
    peer->writeFrame(PeerSession::kAttach, request + "/>");
    return peer;
  }
  std::unique_ptr<PeerSession> attachedPeer() {
    auto peer = askingPeer();
    if (peer == nullptr) return nullptr;
    return peer->readFrame().kind == PeerSession::kConfirm ? std::move(peer) : nullptr;
  }
  // One who has sent the beginning of the largest message: as much as it takes to need memory for all of it.
  std::unique_ptr<PeerSession> largePeer() {
    auto peer = attachedPeer();
    peer->writeInTls(begun_);
    return peer;
  }

  static constexpr std::size_t kBegun = (64U << 10) + 1;
  const std::string begun_ =
      PeerSession::frameHeader(PeerSession::kMessage, kMaxMessageFrameBytes - 1) + std::string(kBegun, '<');
  const std::string large_ = "<Test.Note text=\"" + std::string(3U << 20, 'x') + "\"/>";
  static constexpr std::chrono::milliseconds kForever = std::chrono::hours(1);
};

// Two threads, and limits that are passed by far: as long as nobody may be put out, nobody is, the newest
// caller is served all the same, and at the end everybody is still there.
TEST_F(RoomTest, WhoeverIsSilentCostsNobodyAnything) {
  LqListener::Limits limits;
  limits.callers = limits.callersPerAddress = limits.waitingPerIdentity = 5;
  limits.patience = limits.attachTime = limits.requestTime = kForever;
  EchoServer server(address, kFirstPort, limits);
  std::list<PlainSocket> strangers(300);
  std::size_t number = 0;
  for (const auto& stranger : strangers) {
    ASSERT_TRUE(stranger.connectTo(address, kFirstPort));
    stranger.send(
        std::string("\x16\x03\x01\x02\x00\x01", number++ % 3 * 3));  // nothing, half or more of a header
  }
  std::vector<std::unique_ptr<PeerSession>> sleepers;
  for (int i = 0; i < 20; ++i) sleepers.push_back(attachedPeer());
  sleepers[0]->writeInTls(std::string(1, '\0'));  // a byte of a frame
  server.awaitCensus(300, 20);
  expectGoodExchange();
  for (const auto& stranger : strangers) stranger.send("\x03");  // and one more byte each
  expectGoodExchange();
  server.awaitCensus(300, 20);
  expectSleeping();
  for (const auto& stranger : strangers) EXPECT_TRUE(stranger.isOpen());
  for (auto sleeper = std::next(sleepers.begin()); sleeper != sleepers.end(); ++sleeper) {
    (*sleeper)->writeFrame(PeerSession::kMessage, "<Test.Note/>");
    EXPECT_EQ((*sleeper)->readFrame().kind, PeerSession::kMessage);
  }
  server.stop();
  for (const auto& stranger : strangers) EXPECT_FALSE(stranger.isOpen());
}

// With no patience left, the oldest goes: of an address with too many, of the largest address when there are
// too many in all, of an identity.
TEST_F(RoomTest, TheOldestOfItsKindMakesRoom) {
  LqListener::Limits limits;
  limits.callers = 4;
  limits.callersPerAddress = limits.waitingPerIdentity = 2;
  limits.patience = std::chrono::milliseconds(0);
  EchoServer server(address, kFirstPort, limits);
  // From where, and who makes room for it, by number; -1 for nobody.
  const std::pair<const char*, int> steps[] = {
      {"127.0.9.1", -1}, {"127.0.9.1", -1},
      {"127.0.9.1", 0},  // too many of an address
      {"127.0.9.2", -1}, {"127.0.9.2", -1},
      {"127.0.9.3", 1},   // too many in all, and of the largest addresses it is the older one's turn
      {"127.0.9.4", 3}};  // now the second is the only one with two
  std::vector<PlainSocket> callers(std::size(steps));
  std::size_t present = 0;
  for (std::size_t i = 0; i < callers.size(); ++i) {
    const auto& [from, goes] = steps[i];
    ASSERT_TRUE(callers[i].connectTo(address, kFirstPort, from));
    if (goes >= 0) callers[static_cast<std::size_t>(goes)].waitForClose();
    if (goes < 0) ++present;
    server.awaitCensus(present, 0);
  }
  std::string open;
  for (const auto& caller : callers) open += caller.isOpen() ? 'o' : '-';
  EXPECT_EQ(open, "--o-ooo");
  callers.clear();
  server.awaitCensus(0, 0);

  std::vector<std::unique_ptr<PeerSession>> sleepers;
  for (int i = 0; i < 3; ++i) {
    sleepers.push_back(attachedPeer());
    ASSERT_NE(sleepers.back(), nullptr);
    server.awaitCensus(0, std::min<std::size_t>(sleepers.size(), 2));
  }
  EXPECT_EQ(sleepers[0]->readFrame().kind, 0) << "is still there";
  sleepers[1]->writeFrame(PeerSession::kMessage, "<Test.Note/>");
  EXPECT_EQ(sleepers[1]->readFrame().kind, PeerSession::kMessage);
  server.expectOutcomes({{kLqErrTimeout, "while others needed its place"}});
}

// Nobody takes them out: of what one client asks for, the oldest goes.
TEST_F(RoomTest, WhatOneClientAsksForDoesNotPileUp) {
  LqListener::Limits limits;
  limits.readyPerIdentity = 2;
  LqListener listener(findKey, limits);
  ASSERT_FALSE(listener.open(address, kFirstPort).IsError());
  std::vector<std::unique_ptr<PeerSession>> peers;
  for (int i = 0; i < 4; ++i) {
    peers.push_back(askingPeer());
    ASSERT_NE(peers.back(), nullptr);
  }
  for (int i = 0; i < 2; ++i) EXPECT_EQ(peers[static_cast<std::size_t>(i)]->readFrame().kind, 0) << i;
  for (std::size_t i = 2; i < peers.size(); ++i) {
    const auto session = listener.accept();
    ASSERT_TRUE(session != nullptr && session->IsAsking());
    EXPECT_FALSE(session->ConfirmAttach().IsError());
    EXPECT_EQ(peers[i]->readFrame().kind, PeerSession::kConfirm);
  }
}

// However many threads serve, of one client they serve no more than its share; who waits for the end of one
// hears of it.
TEST_F(RoomTest, AClientIsServedInItsTurn) {
  LqListener::Limits limits;
  limits.servedPerIdentity = 1;
  LqListener listener(findKey, limits);
  ASSERT_FALSE(listener.open(address, kFirstPort).IsError());
  const std::unique_ptr<PeerSession> peers[] = {askingPeer(), askingPeer()};
  auto first = listener.accept();
  auto second = std::async(std::launch::async, [&] { return listener.accept(); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  first.reset();
  EXPECT_NE(second.get(), nullptr);
  const auto unserved = askingPeer();
  while (listener.census().callers != 0) std::this_thread::yield();
  listener.stop();
  EXPECT_EQ(unserved->readFrame().kind, 0) << "still connected";
}

// Whose time has passed goes without anybody needing the place.
TEST_F(RoomTest, CallersAndSessionsHaveTheirTime) {
  LqListener::Limits limits;
  limits.attachTime = limits.requestTime = std::chrono::milliseconds(1);
  {
    EchoServer server(address, kFirstPort, limits);
    const PlainSocket caller;
    ASSERT_TRUE(caller.connectTo(address, kFirstPort));
    caller.waitForClose();
  }
  limits.attachTime = kForever;
  EchoServer server(address, kFirstPort, limits);
  const auto sleeper = attachedPeer();
  sleeper->waitForClose();
  server.expectOutcomes({{kLqErrTimeout, "the time given has passed"}});
}

// Two large frames that do not get on hold all the memory there is for such. A third, which has come whole,
// is declined when its time to wait is over, and its session goes on; once there is memory, it is read.
TEST_F(RoomTest, LargeMessagesWaitForMemoryAndHearWhenThereIsNone) {
  LqListener::Limits limits;
  limits.patience = std::chrono::minutes(1);  // which is over for those only who have had memory for so long
  limits.requestTime = kForever;
  limits.turnTime = std::chrono::milliseconds(1);
  EchoServer server(address, kFirstPort, limits);
  auto first = largePeer();
  const auto second = largePeer();
  const auto third = attachedPeer();
  // Whether the others have their memory yet shows in what the third one hears.
  PeerFrame heard;
  const auto askUntil = [&](int kind) {
    do {
      third->writeFrame(PeerSession::kMessage, large_);
      heard = third->readFrame();
    } while (heard.kind != kind && heard.kind != 0);
  };
  askUntil(PeerSession::kRefuseRequest);
  EXPECT_NE(heard.payload.find("no memory for so large a message"), std::string::npos) << heard.payload;
  expectSleeping();
  third->writeFrame(PeerSession::kMessage, "<Test.Note text=\"small\"/>");
  EXPECT_EQ(third->readFrame().payload, "<Test.Note text=\"small\"/>");
  first.reset();
  askUntil(PeerSession::kMessage);
  EXPECT_EQ(heard.payload, large_);
  first = largePeer();  // gets what the third one, whose session goes on, has given back
  askUntil(PeerSession::kRefuseRequest);
  EXPECT_EQ(heard.kind, PeerSession::kRefuseRequest);
}

TEST_F(RoomTest, WhoIsTooSlowWithALargeMessageGivesItsMemoryToOthers) {
  LqListener::Limits limits;
  limits.patience = std::chrono::milliseconds(0);
  limits.waitingPerIdentity = 8;
  EchoServer server(address, kFirstPort, limits);
  const auto first = largePeer();
  const auto second = largePeer();
  const auto third = attachedPeer();
  third->writeFrame(PeerSession::kMessage, large_);
  first->waitForClose();
  EXPECT_EQ(third->readFrame().payload, large_);
  server.awaitOutcomes(1);
  expectError(server.outcomes()[0], kLqErrTimeout, "slow to send a large message");
}

// Two who have got the beginning of the largest answer hold all the memory there is for those who call.
TEST_F(RoomTest, WhoeverCallsWaitsForMemoryOrTheEndOfItsTime) {
  EchoServer server(address, kFirstPort);
  std::list<CLqNetwork> callers(2);
  std::vector<std::future<CWmError>> holders;
  std::list<ScriptedPeer> peers;
  for (CLqNetwork& caller : callers) {
    const std::string place = uniqueLoopbackAddress();
    peers.emplace_back(place, kFirstPort, kIdentity, kKey, [this](PeerSession& s) {
      if (s.acceptAttach()) s.writeInTls(begun_);
      s.waitForClose();
    });
    ASSERT_FALSE(attach(caller, kPatience, "", MangleHostName(place, "s", kFirstPort, kFirstPort)).IsError());
    holders.push_back(std::async(std::launch::async, [&caller] {
      bool lost = false;
      std::unique_ptr<CNMessageBase> none;
      return caller.ReceiveXMLMessage(nullptr, none, nullptr, 0, -1, lost);
    }));
  }
  const auto ask = [&](int seconds) {
    EXPECT_FALSE(attach(network).IsError());
    EXPECT_FALSE(network.SendXMLMessage(noteOf(std::string(kBegun, 'x')), 0, kPatience, gone).IsError());
    return receive(network, seconds);
  };
  CWmError answer;
  while (!answer.IsError()) answer = ask(2);  // until both hold theirs
  expectError(answer, kLqErrTimeout, "there was no memory for a message of");
  auto waiting = std::async(std::launch::async, ask, kPatience);
  expectSleeping();
  peers.clear();
  EXPECT_STREQ(waiting.get().AsString(), "");
}

// --- what ends a wait without limit ------------------------------------------------------------------------

TEST_F(NetworkTest, APeerThatStaysSilentIsLostAlsoWithoutALimit) {
  ScriptedPeer mute = attaching([](PeerSession& s) { s.waitForClose(); });
  for (const auto end : {&CLqNetwork::Disconnect, &CLqNetwork::ReplyDisconnect}) {
    ASSERT_FALSE(attach(network).IsError());
    (network.*end)(0, gone);
    EXPECT_FALSE(gone || network.IsConnected()) << "it ends in time all the same";
  }
  ASSERT_FALSE(attach(network).IsError());
  CLqNetwork::SetSilenceLimit(std::chrono::milliseconds(20));
  expectError(receive(network, -1), kLqErrConnectionLost, "not a byte");
  EXPECT_TRUE(gone && !network.IsConnected());
}

TEST_F(NetworkTest, ARefusalHeardAtTheGoodbyeIsToldAndSoIsTheEnd) {
  ScriptedPeer peer = attaching([](PeerSession& s) {
    s.readFrame();
    s.writeFrame(PeerSession::kRefuseRequest, "not recorded");
    EXPECT_TRUE(s.answerGoodbye() && s.endsInOrder());
  });
  std::string story;
  CLqNetwork::SetObserver([&](const CLqNetwork::WireEvent& event) {
    const char* const names[] = {"sent", "received", "refused", "ended"};
    story += std::string(names[static_cast<int>(event.kind)]) + " " + event.reason + "; ";
  });
  ASSERT_FALSE(attach(network).IsError());
  ASSERT_FALSE(network.SendXMLMessage(noteOf("acknowledged"), 0, kPatience, gone).IsError());
  network.Disconnect(kPatience, gone);
  CLqNetwork::SetObserver({});
  EXPECT_EQ(story, "sent ; refused not recorded; ended ; ");
}

}  // namespace
