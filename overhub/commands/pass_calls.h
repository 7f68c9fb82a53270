// Calls machines and asks their hosts for a pass, some at a time and in the background: one that hangs costs
// the others nothing but its place.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "overhub/commands/client_link.h"
#include "overhub/store/store.h"

class PassCalls {
 public:
  // `store` must outlive this. The system may give fewer threads than `parallel`.
  PassCalls(const Store& store, ClientLink::Way way, int parallel);
  // Breaks off the calls under way, and with them every other wait for the network in this process.
  ~PassCalls();
  PassCalls(const PassCalls&) = delete;
  PassCalls& operator=(const PassCalls&) = delete;

  void add(const Client& client);
  // Whoever has not been called yet is not called any more.
  void forgetWaiting();
  // What is known of the newest call of a client.
  struct Standing {
    bool isOver = false;
    std::string complaint;  // why its host could not be asked
  };
  Standing standingOf(std::int64_t client) const;

 private:
  void callAndCall();

  const Store& store_;
  ClientLink::Way way_;
  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<Client> waiting_;
  std::unordered_map<std::int64_t, Standing> standings_;
  bool isStopping_ = false;
  std::vector<std::thread> threads_;
};
