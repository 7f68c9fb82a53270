// One request to each machine of a target: some at a time, so that one that hangs costs the others nothing
// but its place, and each one's answer in one piece.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "overhub/commands/client_link.h"
#include "overhub/store/store.h"

class ClientRequests {
 public:
  // Asks one machine; on several threads at once.
  using Request = std::function<RequestOutcome(ClientLink& link)>;

  // Adds the arguments that say which machines, where one is, how long to wait, and how many at a time. With
  // `mayLackTarget` find() complains where the machines are missing.
  void describe(programs::CommandLine::Options& options, bool mayLackTarget = false);

  const std::string& target() const { return target_; }
  const ClientLink::Way& way() const { return way_; }
  int parallel() const { return parallel_; }

  // The machines that are meant, at least one. An exit code; unless it is kExitOk, what went wrong has been
  // said.
  [[nodiscard]] int find(const Store& store, std::vector<Client>& clients) const;

  // Makes the request of each. Of one machine it prints the answer; of several each one's as it comes, and at
  // the end a table. The highest of their exit codes.
  [[nodiscard]] int make(const Store& store, const std::vector<Client>& clients,
                         const Request& request) const;

  // Both.
  [[nodiscard]] int run(const Store& store, const Request& request) const;

 private:
  static constexpr int kDefaultParallel = 8;

  std::string target_;
  ClientLink::Way way_;
  int parallel_ = kDefaultParallel;
};
