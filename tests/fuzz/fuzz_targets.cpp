// What comes from outside, fed with rubbish: one executable for libFuzzer, whose targets the environment
// variable LQ_FUZZ_TARGET chooses (scripts/fuzz sets it). A target demands more than "no crash": what was
// accepted reads back as the same, and what is given to people or to the store keeps its promises.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string_view>

#include "common/host_name.h"
#include "common/join_file.h"
#include "common/terminal_text.h"
#include "lqregistry/App.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObLog.h"
#include "platform/message/text_escape.h"
#include "platform/network/target.h"
#include "platform/registry/registry_path.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/test_support.h"

namespace {

// What libFuzzer keeps as a finding.
void demand(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

void messageText(const std::string& bytes) {
  std::unique_ptr<CNMessageBase> message;
  if (CNMessageBase::fromText(bytes, message).IsError()) return;
  std::string text;
  // A secret that was protected with another key can be stored again, but not told.
  const bool isTold = message->serialize(text, true) == 0;
  demand(isTold || (bytes.find("V8:") != std::string::npos && message->serialize(text, false) == 0),
         "what was read can be written");
  std::unique_ptr<CNMessageBase> again;
  demand(!CNMessageBase::fromText(text, again).IsError() && again->equals(*message),
         "what was written reads back as the same message");
  std::string textAgain;
  demand(again->serialize(textAgain, isTold) == 0 && textAgain == text,
         "the same message gives the same text");
}

// Records whose fields hold these bytes, cut at NUL, which no field may hold.
void recordRoundTrip(const std::string& bytes) {
  OBGui::RegistryTaskResp batch;
  for (std::string_view rest = bytes; !rest.empty();) {
    std::array<std::string, 4> part;
    for (std::string& p : part) {
      p = rest.substr(0, rest.find('\0'));
      rest.remove_prefix(std::min(rest.size(), p.size() + 1));
    }
    OBGui::RegistryKeyInfo& key = batch.keys.edit().emplace_back();
    key.valueName = part[0];
    key.keyPath = part[1];
    key.value = part[2];
    key.deleteFlag = static_cast<std::int64_t>(part[3].size());
    key.encryptedValue = pstring(part[3]);
  }
  for (const bool revealed : {true, false}) {
    std::string text;
    OBGui::RegistryTaskResp again;
    std::string why;
    demand(batch.serialize(text, revealed) == 0, "records can be written");
    demand(again.unserialize(text, &why) == 0 && again.equals(batch), "records read back as they were");
  }
}

constexpr const char* kIdentity = "fuzz";
constexpr std::uint16_t kPort = 8400;

constexpr const char* kNextLibrary = "next";
constexpr int kSeconds = 10;  // for the callee to see the end; the caller closes at once

// A caller who holds the key and then sends these bytes inside the session.
void caller(const std::string& bytes, bool isAttached) {
  static const std::string address = uniqueLoopbackAddress();
  static const std::string keyHex = newSessionKeyHex();
  static LqListener listener([](const std::string& identity, std::string& key) {
    return identity == kIdentity && sessionKeyFromHex(keyHex, key);
  });
  static const bool isOpen = !listener.open(address, kPort).IsError();
  demand(isOpen, "the listener opens");
  const auto ask = [](PeerSession& session, const char* library) {
    session.writeFrame(PeerSession::kAttach,
                       R"(<Session.AttachRequest version="1" library=")" + std::string(library) + R"("/>)");
  };
  std::jthread peer([&] {
    {
      const auto session = PeerSession::call(address, kPort, kIdentity, keyHex);
      demand(session != nullptr, "a caller with the key gets through the handshake");
      if (isAttached) ask(*session, "library");
      session->writeInTls(bytes);
    }
    // One that leaves before it has asked concerns the room alone; the one behind it is let in.
    const auto next = PeerSession::call(address, kPort, kIdentity, keyHex);
    demand(next != nullptr, "the next caller gets through the handshake");
    ask(*next, kNextLibrary);
    next->readFrame();  // waits for the end
  });
  for (auto session = listener.accept();; session = listener.accept()) {
    demand(session != nullptr, "a caller comes out of the room");
    lqsExecuteRemoteDllType library;
    std::string name;
    if (session->AcceptAttach(library, name).IsError()) continue;
    if (std::string_view(library.libraryName) == kNextLibrary) return;
    if (session->IsAsking()) {
      static_cast<void>(session->ConfirmAttach());  // the caller may be gone
    } else {
      bool peerGone = false;
      std::unique_ptr<CNMessageBase> message;
      demand(!session->ReceiveXMLMessage(nullptr, message, nullptr, 0, kSeconds, peerGone).IsError() ||
                 message == nullptr,
             "a failed receipt leaves no message");
    }
    if (session->IsConnected()) listener.await(std::move(session));
  }
}

void keyPath(const std::string& bytes) {
  std::string path;
  programs::escapedForTerminal(bytes);
  if (const auto outcome = lqregistry::ResolvePath(bytes, "Instance001", path); !outcome.ok()) {
    demand(!outcome.reason.empty() && path.empty(), "a refused path has a reason and no result");
    return;
  }
  demand(path.starts_with("SOFTWARE") && !path.ends_with('/') && path.find("//") == std::string::npos,
         "a resolved path is absolute and has no empty component");
  std::string again;
  demand(lqregistry::ResolvePath(path, "Other", again).ok() && again == path,
         "a resolved path resolves to itself");
}

void target(const std::string& bytes) {
  Target parsed;
  if (parseTarget(bytes, parsed).IsError()) return;
  Target again;
  const std::string text = MangleHostName(parsed.host, parsed.client, parsed.ports[0], parsed.ports[1]);
  demand(!parseTarget(text, again).IsError() && again.host == parsed.host && again.client == parsed.client &&
             again.ports == parsed.ports,
         "a target's parts make the same target");
}

void escapes(const std::string& bytes) {
  const auto demandPrintable = [](const std::string& text) {
    for (const char c : text)
      demand(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f,
             "what is escaped holds no control character");
  };
  demandPrintable(programs::escapedForTerminal(bytes));
  std::string text;
  lqmessage::appendAttribute(text, bytes);
  demandPrintable(text);
  demand(text.find_first_of("<\"") == std::string::npos, "what is escaped holds no markup");
  std::string back;
  if (!lqmessage::unescape(bytes, back)) return;
  // Where XML has nothing to resolve, what is unescaped is what was escaped.
  text.clear();
  lqmessage::appendAttribute(text, back);
  std::string again;
  demand(text.find('&') != std::string::npos || (lqmessage::unescape(text, again) && again == back),
         "what was unescaped survives another round");
}

void protectedText(const std::string& bytes) {
  pstring secret;
  if (pstring::fromV8Password(bytes, secret))
    demand(secret.getV8Password() == bytes, "a stored text belongs to one secret, and back");
  const pstring own{std::string_view(bytes)};
  const std::string text = own.getV8Password();
  demand(bytes.empty() ? text.empty() : pstring::fromV8Password(text, secret) && secret == own,
         "a protected secret comes back");
  // A short one may stand in any text by chance.
  demand(bytes.size() < 8 || text.find(bytes) == std::string::npos, "the secret does not show");
}

void joinFile(const std::string& bytes) {
  static const TempDir folder;
  static const std::string path = folder / "fuzz.join";
  writeFile(path, bytes);
  programs::JoinFile read;
  if (const CWmError error = programs::readJoinFile(path, read); error.IsError()) {
    demand(*error.AsString() != '\0', "a refused join file has a reason");
    return;
  }
  std::string key;
  demand(read.clientId > 0 && sessionKeyFromHex(read.sessionKeyHex, key), "an accepted join file is usable");
  for (const std::string& word : {read.serverHost, read.serverName, read.clientName})
    if (!programs::isAcceptableHostName(word)) return;
  writeFile(path, programs::joinFileText(read));
  programs::JoinFile again;
  demand(!programs::readJoinFile(path, again).IsError() &&
             programs::joinFileText(again) == programs::joinFileText(read),
         "a join file that is written anew says the same");
}

using FuzzTarget = std::function<void(const std::string&)>;

const std::map<std::string, FuzzTarget>& targets() {
  static const std::map<std::string, FuzzTarget> all = {
      {"message", messageText},
      {"record", recordRoundTrip},
      {"frames", [](const std::string& bytes) { caller(bytes, true); }},
      {"attach", [](const std::string& bytes) { caller(bytes, false); }},
      {"path", keyPath},
      {"target", target},
      {"escape", escapes},
      {"protected", protectedText},
      {"join", joinFile}};
  return all;
}

const FuzzTarget& chosenTarget() {
  const char* const name = std::getenv("LQ_FUZZ_TARGET");
  const auto found = targets().find(name == nullptr ? "" : name);
  if (found != targets().end()) return found->second;
  std::fprintf(stderr, "LQ_FUZZ_TARGET must name one of:");
  for (const auto& [known, run] : targets()) std::fprintf(stderr, " %s", known.c_str());
  std::fprintf(stderr, "\n");
  std::exit(2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const TempDir folder;
  static const FuzzTarget& run = []() -> const FuzzTarget& {
    oblog::Settings quiet;
    quiet.toStandardError = false;
    static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
    lqregistry::UseFile(folder / "registry.db");
    LQPI_Focus::setFocus("Instance001");
    LQPlatformInfo registry;  // the protection key belongs to a registry that is there
    demand(registry.setString("Fuzz", "sMADE", "1", 0) != 0, "a registry can be made");
    OBGui::RegisterSubsystem();
    App::RegisterSubsystem();
    return chosenTarget();
  }();
  run(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
