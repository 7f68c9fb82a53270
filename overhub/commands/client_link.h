// A request of the server to one client: finds out where the client's host service is, proves with the
// client's own session key that this is its server, sends one message and takes the answer.
//
// Used by one thread; several links at once are in order. Whether `serve` runs does not matter.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "common/host_service.h"
#include "lqregistry/CNMessageBase.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/clients.h"
#include "overhub/store/store.h"

// What became of a request, for whoever tells it.
struct RequestOutcome {
  int exitCode = kExitOk;
  std::string verdict;    // in a word, where there is one: "applied"
  std::string output;     // what the client has answered, to be printed as it is
  std::string complaint;  // what went wrong
};

class ClientLink {
 public:
  struct Way {
    std::string host;  // empty: what is recorded of the client
    std::uint16_t port = programs::kHostServicePort;
    int timeoutSeconds = 30;  // for getting through, and again for the answer
  };

  ClientLink(const Store& store, Client client, Way way)
      : store_(store), client_(std::move(client)), way_(std::move(way)) {}

  const Client& client() const { return client_; }

  // Sends `request` and takes the answer, which has to be an M. Unless the exit code is kExitOk, the outcome
  // says what went wrong.
  template <class M>
  [[nodiscard]] RequestOutcome ask(const CNMessageBase& request, M& answer) {
    std::unique_ptr<CNMessageBase> message;
    RequestOutcome outcome = exchange(request, message);
    if (outcome.exitCode != kExitOk) return outcome;
    const M* const expected = messageAs<M>(message.get());
    if (expected == nullptr) return answeredWith(message->className());
    answer = *expected;
    return outcome;
  }

  // How long a request may take at most, in seconds.
  std::int64_t longestSeconds() const { return 2 * static_cast<std::int64_t>(way_.timeoutSeconds); }

  // "client NAME at HOST port PORT", once asked.
  std::string place() const;
  // That the client's answer is not one to the request.
  [[nodiscard]] RequestOutcome answeredWith(const std::string& what) const;

 private:
  enum class Step { kAttach, kExchange };

  [[nodiscard]] RequestOutcome exchange(const CNMessageBase& request, std::unique_ptr<CNMessageBase>& answer);
  [[nodiscard]] RequestOutcome findHost();
  [[nodiscard]] RequestOutcome explain(const CWmError& error, Step step) const;

  const Store& store_;
  Client client_;
  Way way_;
};

// An outcome that is nothing but an error, or one of the store's.
[[nodiscard]] RequestOutcome failedRequest(int exitCode, std::string complaint);
[[nodiscard]] RequestOutcome failedRequest(const CWmError& error);
