#include "lqhost/service/request_service.h"

#include <memory>

#include "common/host_service.h"
#include "lqhost/instance.h"
#include "lqregistry/App.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqCommunicationManagerClnt.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::RequestService";
// The server is near and has its request at hand; one that dawdles is dropped.
constexpr int kAttachSeconds = 5;
constexpr int kRequestSeconds = 60;
constexpr int kAnswerSeconds = 60;
constexpr int kGoodbyeSeconds = 10;

// Sessions: seconds until a spare thread ends, sessions waiting until another thread joins, threads at most,
// threads that stay; and how many may be served or wait, because the pool itself refuses none.
constexpr std::uint64_t kIdleSeconds = 30;
constexpr std::uint64_t kSessionsPerThread = 1;
constexpr std::uint32_t kMaxThreads = 16;
constexpr std::uint32_t kMinThreads = 1;
constexpr std::size_t kMaxWaiting = 32;

// The server proves itself with the key that this client and the server share.
bool findKey(const std::string& identity, std::string& key) {
  LQPlatformInfo info;
  std::string own;
  std::string hex;
  return info.getString("Overhub", "sSESSIONIDENTITY", own) && own == identity &&
         info.getString("Overhub", "sSESSIONKEY", hex) && sessionKeyFromHex(hex, key);
}

void send(CLqNetwork& session, const CNMessageBase& answer) {
  bool peerGone = false;
  const CWmError error = session.SendXMLMessage(answer, 0, kAnswerSeconds, peerGone);
  if (error.IsError()) ObEvent().Error(kTag, "The answer could not be sent: %s", error.AsString());
  session.ReplyDisconnect(kGoodbyeSeconds, peerGone);
}

void decline(CLqNetwork& session, const std::string& reason) {
  ObEvent().Error(kTag, "Request declined: %s", reason.c_str());
  bool peerGone = session.SendRefusal(reason).IsError();
  session.ReplyDisconnect(kGoodbyeSeconds, peerGone);
}

void answerPush(CLqNetwork& session, OBGui::RegistryTaskResp& batch) {
  LqRegistryManagerClnt client(instanceName());
  ObEvent().Debug(kTag, "The server pushes %zu records", batch.keys->size());
  if (client.serverRequestHandler(batch) == 0) {
    decline(session, "this client does not know its own id");
  } else {
    send(session, *client.sendMessage);
  }
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

void answer(CLqNetwork& session, CNMessageBase& request) {
  if (auto* const batch = messageAs<OBGui::RegistryTaskResp>(&request)) {
    answerPush(session, *batch);
  } else if (auto* const fetch = messageAs<App::FetchClientRegistry>(&request)) {
    answerFetch(session, *fetch);
  } else if (auto* const call = messageAs<App::AppCommunicationMessageReq>(&request)) {
    answerCall(session, *call);
  } else {
    decline(session, std::string("this client answers no ") + request.className());
  }
}

void serve(CLqNetwork& session) {
  lqsExecuteRemoteDllType remoteLibrary;
  std::string caller;
  CWmError error = session.AcceptAttach(remoteLibrary, caller, kAttachSeconds);
  if (error.IsError()) {
    ObEvent().Error(kTag, "%s", error.AsString());
    return;
  }
  const std::string library = remoteLibrary.libraryName;
  const std::string entry = remoteLibrary.entryName;
  if (library != programs::kHostLibraryName || entry != programs::kHostEntryName) {
    ObEvent().Error(kTag, "Attach refused: no entry %s in library %s", entry.c_str(), library.c_str());
    session.RefuseAttach("this client has no entry " + entry + " in a library " + library);
    return;
  }
  if (session.ConfirmAttach().IsError()) return;
  std::unique_ptr<CNMessageBase> request;
  bool peerGone = false;
  error = session.ReceiveXMLMessage(nullptr, request, nullptr, 0, kRequestSeconds, peerGone);
  if (!error.IsError()) {
    answer(session, *request);
  } else if (error.GetCode() == kLqErrBadMessage) {
    decline(session, error.AsString());
  } else {
    ObEvent().Error(kTag, "No request came: %s", error.AsString());
  }
}

void* serveOnPool(void* session) {
  const std::unique_ptr<CLqNetwork> owned(static_cast<CLqNetwork*>(session));
  serve(*owned);
  return nullptr;
}

}  // namespace

RequestService::RequestService() : listener_(&findKey) {}

RequestService::~RequestService() {
  listener_.stop();
  if (acceptor_.joinable()) acceptor_.join();
}

CWmError RequestService::start(const std::string& address, std::uint16_t port) {
  OBGui::RegisterSubsystem();
  App::RegisterSubsystem();
  LqEntities::RegisterSubsystem();
  CWmError error = listener_.open(address, port);
  if (error.IsError()) return error;
  if (!pool_.initThreadPool("lqhost-requests", kIdleSeconds, kSessionsPerThread, kMaxThreads, kMinThreads))
    return {kLqErrConnect, "the system gives no thread to serve requests with"};
  acceptor_ = std::thread([this] { acceptSessions(); });
  return {};
}

void RequestService::acceptSessions() {
  while (std::unique_ptr<CLqNetwork> session = listener_.accept()) {
    CLqNetwork* const handedOver = session.release();
    if (pool_.pendingCount() < kMaxThreads + kMaxWaiting && pool_.doWork(&serveOnPool, handedOver) == 0)
      continue;
    ObEvent().Error(kTag, "A session was dropped: %zu wait already", kMaxWaiting);
    delete handedOver;
  }
}

}  // namespace host
