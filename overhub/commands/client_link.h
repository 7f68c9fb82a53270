// A request of the server to one client: finds out where the client's host service is, proves with the
// client's own session key that this is its server, sends one message and takes the answer.
//
// Used by one thread. Whether `serve` runs does not matter.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/command_line.h"
#include "common/host_service.h"
#include "lqregistry/CNMessageBase.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/store.h"

class ClientLink {
 public:
  // Adds the arguments that say which client, where it is, and how long to wait.
  void describe(programs::CommandLine::Options& options);

  const std::string& client() const { return client_; }

  // Sends `request` and takes the answer, which has to be an M. Returns an exit code; unless it is kExitOk,
  // what went wrong has been said.
  template <class M>
  [[nodiscard]] int ask(const Store& store, const CNMessageBase& request, M& answer) {
    std::unique_ptr<CNMessageBase> message;
    const int exitCode = exchange(store, request, message);
    if (exitCode != kExitOk) return exitCode;
    const M* const expected = messageAs<M>(message.get());
    if (expected == nullptr) return complainOfAnswer(message->className());
    answer = *expected;
    return kExitOk;
  }

  // "client NAME at HOST port PORT", once asked.
  std::string place() const;
  // Says that the client's answer is not one to the request.
  [[nodiscard]] int complainOfAnswer(const std::string& what) const;

 private:
  enum class Step { kAttach, kExchange };

  [[nodiscard]] int exchange(const Store& store, const CNMessageBase& request,
                             std::unique_ptr<CNMessageBase>& answer);
  [[nodiscard]] int findHost(const Store& store);
  [[nodiscard]] int explain(const CWmError& error, Step step) const;

  std::string client_;
  std::string host_;  // empty: what is recorded of the client
  std::uint16_t port_ = programs::kHostServicePort;
  int timeoutSeconds_ = 30;  // for getting through, and again for the answer
};
