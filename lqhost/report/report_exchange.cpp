#include "lqhost/report/report_exchange.h"

#include <algorithm>
#include <array>
#include <memory>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"
#include "records/service_names.h"

namespace host {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t kNameBuffer = 1024;

// Sessions take whole seconds; the last part of one counts as one.
int secondsUntil(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - steady_clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

// As the product calls itself and the server in its own sessions.
std::string localName(LQPlatformInfo& info) {
  if ((info.getLQPlatformType() & kPlatformServer) != 0) {
    std::array<char, kNameBuffer> name{};
    info.getOverhubClientName(name.data(), name.size());
    return name.data();
  }
  const char* const machine = info.getPhysicalMachine();
  return machine == nullptr ? "" : machine;
}

CWmError attach(CLqNetwork& session, steady_clock::time_point deadline) {
  LQPlatformInfo info;
  std::string host;
  std::string server;
  if (!info.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, host) ||
      !info.getString(lqsettings::kServerName.key, lqsettings::kServerName.name, server))
    return {kLqErrBadTarget, "the server is not known: " + info.getRegErrorText()};
  lqsExecuteRemoteDllType service;
  service.setNames(kReportLibraryName, kReportEntryName);
  bool peerGone = false;
  return session.Attach_RemoteDLL(MangleHostName(host, server, kFirstServicePort, kSecondServicePort),
                                  service, localName(info), secondsUntil(deadline), peerGone);
}

CWmError ask(CLqNetwork& session, const HostReport::Report& report, steady_clock::time_point deadline,
             HostReport::Answer& answer, bool& isSent) {
  bool peerGone = false;
  CWmError error = session.SendXMLMessage(report, 0, secondsUntil(deadline), peerGone);
  if (error.IsError()) return error;
  isSent = true;
  std::unique_ptr<CNMessageBase> reply;
  error = session.ReceiveXMLMessage(nullptr, reply, nullptr, 0, secondsUntil(deadline), peerGone);
  if (error.IsError()) return error;
  auto* const answered = messageAs<HostReport::Answer>(reply.get());
  if (answered == nullptr)
    return {kLqErrBadMessage, std::string("the server answered with a ") + reply->className()};
  if (answered->sequence != report.sequence)
    return {kLqErrBadMessage, "the server answered another report than it was sent"};
  answer = std::move(*answered);
  return {};
}

}  // namespace

std::int64_t ownClientId() {
  LQPlatformInfo info;
  std::array<char, kNameBuffer> host{};
  std::string client;
  std::uint64_t id = 0;
  info.getClientHostName(info.getPhysicalMachine(), host.data(), host.size() - 1);
  if (!info.getClientNameFromHostName(host.data(), client) ||
      LQClient(client, false, 0).getClientId(id, nullptr) != 0)
    return 0;
  return static_cast<std::int64_t>(id);
}

CWmError exchangeReport(const HostReport::Report& report, steady_clock::time_point deadline,
                        HostReport::Answer& answer, bool& isSent) {
  HostReport::RegisterSubsystem();
  CLqNetwork session;
  CWmError error = attach(session, deadline);
  if (!error.IsError()) error = ask(session, report, deadline, answer, isSent);
  bool peerGone = error.GetCode() == kLqErrConnectionLost;
  if (session.IsConnected()) session.Disconnect(secondsUntil(deadline), peerGone);
  return error;
}

}  // namespace host
