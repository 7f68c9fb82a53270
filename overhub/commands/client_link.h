// A request of the server to one client: finds out where the client's host service is, proves with the
// client's own session key that this is its server, sends one message and takes the answer.
//
// Used by one thread. Whether `serve` runs does not matter.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "common/host_service.h"
#include "lqregistry/CNMessageBase.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/store/data_store.h"

struct LinkOptions {
  std::string host;  // empty: what is recorded of the client
  std::uint16_t port = programs::kHostServicePort;
  int timeoutSeconds = 30;  // for getting through, and again for the answer
};

class ClientLink {
 public:
  ClientLink(const DataStore& store, std::string client, LinkOptions options)
      : store_(store), client_(std::move(client)), options_(std::move(options)) {}

  // Sends `request` and takes the answer, which has to be an M. Gives an exit code; unless it is kExitOk,
  // what went wrong has been said.
  template <class M>
  int ask(const CNMessageBase& request, M& answer) {
    std::unique_ptr<CNMessageBase> message;
    const int exitCode = exchange(request, message);
    if (exitCode != kExitOk) return exitCode;
    const M* const expected = messageAs<M>(message.get());
    if (expected == nullptr) return complainOfAnswer(message->className());
    answer = *expected;
    return kExitOk;
  }

  // "client NAME at HOST port PORT", once asked.
  std::string place() const;
  // Says that the client's answer is not one to the request.
  int complainOfAnswer(const std::string& what) const;

 private:
  enum class Step { kAttach, kExchange };

  int exchange(const CNMessageBase& request, std::unique_ptr<CNMessageBase>& answer);
  int findHost();
  int explain(const CWmError& error, Step step) const;

  const DataStore& store_;
  std::string client_;
  LinkOptions options_;
};
