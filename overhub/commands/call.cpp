// `overhub call`: hands a message to whatever clients have registered for its type.
#include <unistd.h>

#include <memory>
#include <string_view>
#include <utility>

#include "common/terminal_text.h"
#include "lqregistry/App.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/commands/client_requests.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/store/file_access.h"

namespace {

constexpr const char* kFooter =
    R"(Prints what the handler answers, as it is; a payload that starts with "-" goes after "--".

Examples:
  overhub call web-1 7 hello
  overhub call web-1 7 - < request.json)";

// What stands for a payload that comes from standard input.
constexpr const char* kFromInput = "-";

// A payload for people: the breaks between its lines are all that a terminal gets to act on. A program that
// reads it from a pipe gets it as it came.
std::string linesForTerminal(std::string_view payload) {
  std::string lines;
  for (;;) {
    const std::size_t end = payload.find('\n');
    lines += programs::escapedForTerminal(payload.substr(0, end));
    if (end == std::string_view::npos) return lines;
    lines += '\n';
    payload.remove_prefix(end + 1);
  }
}

int readPayload(std::string& payload) {
  if (payload == kFromInput) {
    const CWmError error = file_access::readInput(kMaxMessageFrameBytes, payload);
    if (error.IsError()) return complain(kExitUsage, error.AsString());
  }
  if (payload.find('\0') != std::string::npos)
    return complain(kExitUsage, "a payload cannot hold NUL; encode it, in base64 for instance");
  return kExitOk;
}

struct Call {
  ClientRequests requests;
  std::int64_t messageType = 0;
  std::string payload;
};

RequestOutcome callTo(ClientLink& link, const App::AppCommunicationMessageReq& request) {
  App::AppCommunicationMessageResp answer;
  RequestOutcome outcome = link.ask(request, answer);
  if (outcome.exitCode != kExitOk) return outcome;
  App::GenericResp fault;
  if (fault.unserialize(answer.payload) == 0)
    return failedRequest(kExitRefused, link.place() + ": " + fault.errorText.get() + " (error " +
                                           std::to_string(fault.errorCode.get()) + ")");
  const bool isForPeople = ::isatty(STDOUT_FILENO) != 0;
  outcome.output = (isForPeople ? linesForTerminal(answer.payload.get()) : answer.payload.get()) + '\n';
  return outcome;
}

int call(const Store& store, Call& wanted) {
  if (const int exitCode = readPayload(wanted.payload); exitCode != kExitOk) return exitCode;
  App::RegisterSubsystem();
  App::AppCommunicationMessageReq request;
  request.messageType = wanted.messageType;
  request.payload = std::move(wanted.payload);
  return wanted.requests.run(store, [&request](ClientLink& link) { return callTo(link, request); });
}

}  // namespace

void addCall(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Call>();
  auto options = line.add("call", "Send an application message to clients",
                          onStore(place, [wanted](const Store& store) { return call(store, *wanted); }));
  wanted->requests.describe(options);
  options.required("TYPE N", wanted->messageType, "The message type that the client has a handler for")
      .required("PAYLOAD", wanted->payload, "What the handler gets; \"-\" takes it from standard input")
      .footer(kFooter);
}
