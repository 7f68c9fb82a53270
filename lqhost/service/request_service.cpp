#include "lqhost/service/request_service.h"

#include <cstring>  // explicit_bzero
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "common/descriptor_limit.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cache_before.h"
#include "lqhost/report/drift.h"
#include "lqhost/service/passes.h"
#include "lqregistry/App.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqCommunicationManagerClnt.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"
#include "records/service_names.h"

namespace host {

namespace {

constexpr const char* kTag = "host::RequestService";
constexpr int kAnswerSeconds = 60;

// Requests that are worked on at a time: one server asks, and the registry takes one writer.
constexpr std::size_t kThreads = 8;

LqListener::Limits limits() {
  LqListener::Limits some;
  some.servedPerIdentity = kThreads;  // there is one identity, the server's
  return some;
}

// The server proves itself with the key that this client and the server share.
bool findKey(const std::string& identity, std::string& key) {
  LQPlatformInfo info;
  std::string own;
  std::string hex;
  const bool isFound =
      info.getString(lqsettings::kSessionIdentity.key, lqsettings::kSessionIdentity.name, own) &&
      own == identity && info.getString(lqsettings::kSessionKey.key, lqsettings::kSessionKey.name, hex) &&
      sessionKeyFromHex(hex, key);
  explicit_bzero(hex.data(), hex.size());
  return isFound;
}

void send(CLqNetwork& session, const CNMessageBase& answer) {
  bool peerGone = false;
  const CWmError error = session.SendXMLMessage(answer, 0, kAnswerSeconds, peerGone);
  if (error.IsError()) ObEvent().Error(kTag, "The answer could not be sent: %s", error.AsString());
}

void decline(CLqNetwork& session, const std::string& reason) {
  ObEvent().Error(kTag, "Request declined: %s", reason.c_str());
  static_cast<void>(session.SendRefusal(reason));  // who is gone needs no reason, and the log has it
}

// What the host reports of a push.
struct AppliedPush {
  BatchFacts facts;
  RegistryWrites writes;
  HostReport::DriftList drifts;
};

// Applies a pushed batch. Otherwise the reason, and nothing was applied.
std::string applyPush(LqRegistryManagerClnt& client, OBGui::RegistryTaskResp& batch, AppliedPush& applied) {
  applied.facts = factsOf(batch.keys);
  PushScope push;
  const CacheBefore cache;
  WritesWatch writes;
  std::string reason = push.arrive(batch.keys);
  if (reason.empty() && client.serverRequestHandler(batch) == 0)
    reason = "this client does not know its own id";
  if (!reason.empty()) {
    push.withdraw();
    return reason;
  }
  applied.writes = writes.take();
  if (push.beganSettled()) applied.drifts = driftOf(applied.writes, cache, std::time(nullptr));
  return {};
}

void answerPush(CLqNetwork& session, OBGui::RegistryTaskResp& batch) {
  LqRegistryManagerClnt client(instanceName());
  ObEvent().Debug(kTag, "The server pushes %zu records", batch.keys->size());
  AppliedPush applied;
  if (const std::string reason = applyPush(client, batch, applied); !reason.empty()) {
    decline(session, reason);
    return;
  }
  send(session, *client.sendMessage);
  const auto* const said = messageAs<OBGui::RegistryTaskResp>(client.sendMessage);
  reportPush(said != nullptr && said->taskStatus == OBGui::kTaskSuccess, applied.facts, applied.writes,
             std::move(applied.drifts));
  // What was pushed is not in the settings cache; the download that follows puts it there.
  wantDownload();
}

void answerFetch(CLqNetwork& session, App::FetchClientRegistry& fetch) {
  LqRegistryManagerClnt client(instanceName());
  App::KeyList& keys = fetch.keyInfo.edit().keys.edit();
  ObEvent().Debug(kTag, "The server fetches %zu values", keys.size());
  client.getRequestedKeys(&keys);
  client.sendRequestedKeys(&session, &keys);
}

void answerCall(CLqNetwork& session, App::AppCommunicationMessageReq& request) {
  LqCommunicationManagerClnt client(instanceName());
  ObEvent().Debug(kTag, "The server sends a message of type %ld",
                  static_cast<long>(request.messageType.get()));
  client.serverRequestHandler(request);
  send(session, *client.getXMLSendObj());
}

// Only begins it: the server hears of the outcome by the report.
void answerSyncNow(CLqNetwork& session, const HostReport::SyncNow& request) {
  ObEvent().Debug(kTag, "The server asks for a synchronisation");
  if (isSynchronisationOff()) {
    decline(session, "synchronisation is switched off on this client");
    return;
  }
  wantDownload();
  send(session, request);
}

void answer(CLqNetwork& session, CNMessageBase& request) {
  if (auto* const batch = messageAs<OBGui::RegistryTaskResp>(&request)) {
    answerPush(session, *batch);
  } else if (auto* const fetch = messageAs<App::FetchClientRegistry>(&request)) {
    answerFetch(session, *fetch);
  } else if (auto* const call = messageAs<App::AppCommunicationMessageReq>(&request)) {
    answerCall(session, *call);
  } else if (auto* const sync = messageAs<HostReport::SyncNow>(&request)) {
    answerSyncNow(session, *sync);
  } else {
    decline(session, std::string("this client answers no ") + request.className());
  }
}

// True when the caller is in.
bool attach(CLqNetwork& session, const std::string& library, const std::string& entry) {
  if (library == kHostLibraryName && entry == kHostEntryName) return !session.ConfirmAttach().IsError();
  ObEvent().Error(kTag, "Attach refused: no entry %s in library %s", entry.c_str(), library.c_str());
  session.RefuseAttach("this client has no entry " + entry + " in a library " + library);
  return false;
}

// One step of a session: its attach, a request and the answer to it, or its end. True when it goes on.
bool serveStep(CLqNetwork& session) {
  lqsExecuteRemoteDllType remoteLibrary;
  std::string caller;
  CWmError error = session.AcceptAttach(remoteLibrary, caller);
  if (error.IsError()) {
    // Strangers bring this about at will; the listener sums up failed handshakes.
    ObEvent().DebugLvl(error.GetCode() == kLqErrHandshake ? 3 : kLqLogDefaultLevel, kTag, "%s",
                       error.AsString());
    return false;
  }
  if (session.IsAsking()) return attach(session, remoteLibrary.libraryName, remoteLibrary.entryName);

  std::unique_ptr<CNMessageBase> request;
  bool peerGone = false;
  error = session.ReceiveXMLMessage(nullptr, request, nullptr, 0, 0, peerGone);
  if (!error.IsError()) {
    answer(session, *request);
  } else if (error.GetCode() == kLqErrBadMessage) {
    decline(session, error.AsString());
  } else {
    if (error.GetCode() != kLqErrNotConnected) ObEvent().Error(kTag, "No request came: %s", error.AsString());
    return false;
  }
  return true;  // until the server's goodbye
}

}  // namespace

RequestService::RequestService() : listener_(&findKey, limits()) {}

RequestService::~RequestService() {
  listener_.stop();
  for (std::thread& thread : threads_) thread.join();
}

CWmError RequestService::start(const std::string& address, std::uint16_t port) {
  OBGui::RegisterSubsystem();
  App::RegisterSubsystem();
  LqEntities::RegisterSubsystem();
  HostReport::RegisterSubsystem();
  programs::raiseDescriptorLimit();
  CWmError error = listener_.open(address, port);
  if (error.IsError()) return error;
  try {
    while (threads_.size() < kThreads) threads_.emplace_back([this] { serveSessions(); });
  } catch (const std::system_error&) {
    return {kLqErrConnect, "the system gives no thread to serve requests with"};
  }
  return {};
}

void RequestService::serveSessions() {
  while (std::unique_ptr<CLqNetwork> session = listener_.accept()) {
    try {
      if (serveStep(*session)) listener_.await(std::move(session));
    } catch (const std::exception& fault) {
      ObEvent().Error(kTag, "A session was dropped: %s", fault.what());
    }
  }
}

}  // namespace host
