#include "overhub/commands/client_requests.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>

#include "common/text_table.h"
#include "overhub/commands/target.h"

namespace {

constexpr int kMaxTimeoutSeconds = 86400;
constexpr int kMaxParallel = 256;

RequestOutcome outcomeOf(ClientLink& link, const ClientRequests::Request& request) {
  try {
    return request(link);
  } catch (const std::exception& error) {  // out of memory, in all likelihood
    return failedRequest(kExitRefused, error.what());
  }
}

std::string verdictOf(const RequestOutcome& outcome) {
  if (!outcome.verdict.empty()) return outcome.verdict;
  switch (outcome.exitCode) {
    case kExitOk:
      return "answered";
    case kExitUnreachable:
      return "unreachable";
    case kExitDataUnusable:
      return "store fault";
    default:
      return "refused";
  }
}

int tellOne(const RequestOutcome& outcome) {
  if (!outcome.verdict.empty()) print(outcome.verdict + "\n");
  print(outcome.output);
  return outcome.complaint.empty() ? outcome.exitCode : complain(outcome.exitCode, outcome.complaint);
}

int tellAll(const std::vector<Client>& clients, const std::vector<RequestOutcome>& outcomes) {
  programs::TextTable table({"MACHINE", "RESULT", "TEXT"});
  int worst = kExitOk;
  for (std::size_t i = 0; i < clients.size(); ++i) {
    table.addRow({clients[i].name, verdictOf(outcomes[i]), outcomes[i].complaint});
    worst = std::max(worst, outcomes[i].exitCode);
  }
  print(table.text());
  return worst;
}

}  // namespace

void ClientRequests::describe(programs::CommandLine::Options& options, bool mayLackTarget) {
  if (mayLackTarget) {
    options.option("TARGET", target_, kTargetForms);
  } else {
    options.required("TARGET", target_, kTargetForms);
  }
  options
      .option("--host HOST", way_.host, "Where the client is, if it is one; otherwise what is recorded of it")
      .bounded("--port PORT", way_.port, 1, std::numeric_limits<std::uint16_t>::max(),
               "The port of its host service")
      .bounded("--timeout SECONDS", way_.timeoutSeconds, 1, kMaxTimeoutSeconds,
               "How long to try to get through, and then to wait for the answer")
      .bounded("--parallel N", parallel_, 1, kMaxParallel, "How many machines are asked at a time");
}

int ClientRequests::find(const Store& store, std::vector<Client>& clients) const {
  if (target_.empty()) return complain(kExitUsage, "which machines are meant? TARGET is missing");
  const CWmError error = store.database().read(
      [&](soci::session& session) { return clientsOfTarget(session, target_, clients); });
  if (error.IsError()) return storeFailed(error);
  if (clients.empty()) return complain(kExitRefused, target_ + " has no machine in it");
  if (clients.size() > 1 && !way_.host.empty())
    return complain(kExitUsage, "--host says where one client is, and " + target_ + " is " +
                                    std::to_string(clients.size()));
  return kExitOk;
}

int ClientRequests::make(const Store& store, const std::vector<Client>& clients,
                         const Request& request) const {
  std::vector<RequestOutcome> outcomes(clients.size());
  std::atomic<std::size_t> next = 0;
  std::mutex printing;
  const bool isOne = clients.size() == 1;
  const auto work = [&] {
    for (std::size_t i = 0; (i = next.fetch_add(1)) < clients.size();) {
      ClientLink link(store, clients[i], way_);
      RequestOutcome& outcome = outcomes[i];
      outcome = outcomeOf(link, request);
      if (isOne || outcome.output.empty()) continue;
      const std::lock_guard guard(printing);
      print(clients[i].name + ":\n" + outcome.output);
      outcome.output.clear();
    }
  };
  {
    std::vector<std::jthread> others;
    const std::size_t wanted = std::min(clients.size(), static_cast<std::size_t>(parallel_));
    try {
      while (others.size() + 1 < wanted) others.emplace_back(work);
    } catch (const std::system_error&) {  // fewer at a time, then
    }
    work();
  }
  return isOne ? tellOne(outcomes.front()) : tellAll(clients, outcomes);
}

int ClientRequests::run(const Store& store, const Request& request) const {
  std::vector<Client> clients;
  const int exitCode = find(store, clients);
  return exitCode == kExitOk ? make(store, clients, request) : exitCode;
}
