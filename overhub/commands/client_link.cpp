#include "overhub/commands/client_link.h"

#include <cstring>
#include <limits>

#include "common/host_name.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/target.h"
#include "overhub/store/session_keys.h"
#include "records/service_names.h"

namespace {

constexpr int kMaxTimeoutSeconds = 86400;

struct Advice {
  int exitCode;
  const char* hint;
};

Advice unreachable() {
  return {kExitUnreachable,
          "see that \"lqhost run\" runs there; --host and --port name another place for this once, \"overhub "
          "client-host\" another host for good"};
}

// For a request that has not been sent.
Advice adviceOnAttach(std::uint32_t code) {
  switch (code) {
    case kLqErrHandshake:
      return {kExitRefused,
              "either another machine answers there, which --host or \"overhub client-host\" mends, or the "
              "client has joined with another join file and needs its own: \"lqhost join FILE\""};
    case kLqErrAttachRefused:
      return {kExitRefused, "its host service does not take requests of this server; its log tells why"};
    default:
      return unreachable();
  }
}

// For one that may have been.
Advice adviceOnExchange(std::uint32_t code) {
  switch (code) {
    case kLqErrTimeout:
      return {kExitUnreachable, "the request may be carried out all the same; --timeout waits longer"};
    case kLqErrConnectionLost:
      return {kExitUnreachable, "the request may have been carried out all the same; the client's log tells"};
    case kLqErrFrameTooLarge:
      return {kExitRefused, "a message has at most 64 MiB; send less at a time"};
    case kLqErrRequestRefused:
      return {kExitRefused, "the client does not do this"};
    case kLqErrNotConnected:
      return {kExitRefused, "it has given no answer; its log tells why"};
    default:
      return {kExitRefused, "client and server are of different versions, or the client is at fault"};
  }
}

}  // namespace

void ClientLink::describe(programs::CommandLine::Options& options) {
  options.required("CLIENT", client_, "The client's name")
      .option("--host HOST", host_, "Where the client is; otherwise what is recorded of it")
      .bounded("--port PORT", port_, 1, std::numeric_limits<std::uint16_t>::max(),
               "The port of its host service")
      .bounded("--timeout SECONDS", timeoutSeconds_, 1, kMaxTimeoutSeconds,
               "How long to try to get through, and then to wait for the answer");
}

std::string ClientLink::place() const {
  return "client " + client_ + " at " + host_ + " port " + std::to_string(port_);
}

int ClientLink::complainOfAnswer(const std::string& what) const {
  return complain(kExitRefused, place() + " has answered with " + what +
                                    ", which is no answer to this request; see that its host service is of "
                                    "the same version as this server");
}

// What the command line says counts first, then what a person has set, then the address it last came from.
int ClientLink::findHost(const Store& store) {
  std::string known;
  const CWmError error = store.database().read([&](soci::session& session) {
    Client client;
    const CWmError fault = oneClient(session, client_, client);
    if (!fault.IsError()) known = client.host.empty() ? contactOf(session, client.id).address : client.host;
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  if (host_.empty()) host_ = known;
  if (host_.empty()) {
    return complain(kExitRefused, "where client " + client_ +
                                      " is, is not known, since it has not attached yet; name its host with "
                                      "--host HOST, or for good with \"overhub client-host " +
                                      client_ + " HOST\"");
  }
  if (!programs::isAcceptableHostName(host_)) {
    return complain(kExitRefused, "\"" + host_ + "\" is no host name or address; \"overhub client-host " +
                                      client_ + " HOST\" sets the right one");
  }
  return kExitOk;
}

int ClientLink::explain(const CWmError& error, Step step) const {
  const Advice advice =
      step == Step::kAttach ? adviceOnAttach(error.GetCode()) : adviceOnExchange(error.GetCode());
  return complain(advice.exitCode, place() + ": " + error.AsString() + "; " + advice.hint);
}

int ClientLink::exchange(const Store& store, const CNMessageBase& request,
                         std::unique_ptr<CNMessageBase>& answer) {
  if (const int exitCode = findHost(store); exitCode != kExitOk) return exitCode;
  std::string key;
  CWmError error = readSessionKey(store, client_, key);
  if (error.IsError()) return storeFailed(error);
  CLqNetwork network;
  network.UseCredentials(client_, key);
  explicit_bzero(key.data(), key.size());

  lqsExecuteRemoteDllType remote;
  remote.setNames(kHostLibraryName, kHostEntryName);
  const int seconds = timeoutSeconds_;
  bool peerGone = false;
  error = network.Attach_RemoteDLL(MangleHostName(host_, client_, port_, port_), remote,
                                   programs::ownHostName(), seconds, peerGone);
  if (error.IsError()) return explain(error, Step::kAttach);
  error = network.SendXMLMessage(request, 0, seconds, peerGone);
  if (!error.IsError()) error = network.ReceiveXMLMessage(nullptr, answer, nullptr, 0, seconds, peerGone);
  // A client that has let one time-out pass would let a second one pass over the goodbye.
  if (error.GetCode() != kLqErrTimeout) network.Disconnect(seconds, peerGone);
  return error.IsError() ? explain(error, Step::kExchange) : kExitOk;
}
