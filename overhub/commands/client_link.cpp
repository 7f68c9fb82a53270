#include "overhub/commands/client_link.h"

#include <cstring>

#include "common/host_name.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/store/session_keys.h"
#include "records/service_names.h"

namespace {

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

std::string ClientLink::place() const {
  return "client " + client_.name + " at " + way_.host + " port " + std::to_string(way_.port);
}

RequestOutcome ClientLink::answeredWith(const std::string& what) const {
  return failedRequest(kExitRefused,
                       place() + " has answered with " + what +
                           ", which is no answer to this request; see that its host service is of "
                           "the same version as this server");
}

// What the command line says counts first, then what a person has set, then the address it last came from.
RequestOutcome ClientLink::findHost() {
  const std::string& name = client_.name;
  if (way_.host.empty()) way_.host = client_.host;
  if (way_.host.empty()) {
    const CWmError error = store_.database().read([this](soci::session& session) -> CWmError {
      way_.host = contactOf(session, client_.id).address;
      return {};
    });
    if (error.IsError()) return failedRequest(error);
  }
  if (way_.host.empty()) {
    return failedRequest(kExitRefused,
                         "where client " + name +
                             " is, is not known, since it has not attached yet; name its host with "
                             "--host HOST, or for good with \"overhub client-host " +
                             name + " HOST\"");
  }
  if (!programs::isAcceptableHostName(way_.host)) {
    return failedRequest(kExitRefused, "\"" + way_.host +
                                           "\" is no host name or address; \"overhub client-host " + name +
                                           " HOST\" sets the right one");
  }
  return {};
}

RequestOutcome ClientLink::explain(const CWmError& error, Step step) const {
  const Advice advice =
      step == Step::kAttach ? adviceOnAttach(error.GetCode()) : adviceOnExchange(error.GetCode());
  return failedRequest(advice.exitCode, place() + ": " + error.AsString() + "; " + advice.hint);
}

RequestOutcome ClientLink::exchange(const CNMessageBase& request, std::unique_ptr<CNMessageBase>& answer) {
  if (RequestOutcome outcome = findHost(); outcome.exitCode != kExitOk) return outcome;
  std::string key;
  CWmError error = readSessionKey(store_, client_.name, key);
  if (error.IsError()) return failedRequest(error);
  CLqNetwork network;
  network.UseCredentials(client_.name, key);
  explicit_bzero(key.data(), key.size());

  lqsExecuteRemoteDllType remote;
  remote.setNames(kHostLibraryName, kHostEntryName);
  const int seconds = way_.timeoutSeconds;
  bool peerGone = false;
  error = network.Attach_RemoteDLL(MangleHostName(way_.host, client_.name, way_.port, way_.port), remote,
                                   programs::ownHostName(), seconds, peerGone);
  if (error.IsError()) return explain(error, Step::kAttach);
  error = network.SendXMLMessage(request, 0, seconds, peerGone);
  if (!error.IsError()) error = network.ReceiveXMLMessage(nullptr, answer, nullptr, 0, seconds, peerGone);
  // A client that has let one time-out pass would let a second one pass over the goodbye.
  if (error.GetCode() != kLqErrTimeout) network.Disconnect(seconds, peerGone);
  return error.IsError() ? explain(error, Step::kExchange) : RequestOutcome();
}

RequestOutcome failedRequest(int exitCode, std::string complaint) {
  RequestOutcome outcome;
  outcome.exitCode = exitCode;
  outcome.complaint = std::move(complaint);
  return outcome;
}

RequestOutcome failedRequest(const CWmError& error) {
  return failedRequest(exitCodeOf(error), error.AsString());
}
