// The server: listens, serves what is asked of it, and stops in order.
//
// Sessions wait in their listener and cost no thread there; a thread takes one only when it has something to
// do, and hands it back. So kThreadsPerPort bounds the requests that are worked on at a time, not how many
// clients there are.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lqregistry/CLqNetwork.h"
#include "overhub/server/known_keys.h"
#include "overhub/store/store.h"

// A client that leaves its reply unread holds one for kReplySeconds; hence more than there are processors.
inline constexpr std::size_t kThreadsPerPort = 32;
// How long sessions may go on once the server is asked to stop.
inline constexpr std::chrono::milliseconds kStopWait{5000};
// And how long what is under way then has to end, without its network.
inline constexpr std::chrono::milliseconds kLastWait{1000};

class Server {
 public:
  explicit Server(const Store& store) : store_(store) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Opens one more address and port; before start().
  CWmError listen(const std::string& address, std::uint16_t port);

  // When the system gives too few threads, none is left running.
  CWmError start();

  // Turns new callers away and waits for the sessions, at most for `wait`; then ends every wait of the
  // process for the network. Returns how many requests are still worked on; unless it is 0 the object must
  // not be destroyed, only the process ended. `cutOff` gets the number of attached sessions that it did not
  // wait for.
  std::size_t stop(std::size_t& cutOff, std::chrono::milliseconds wait = kStopWait);

 private:
  void work(LqListener& listener);
  void serveOne(LqListener& listener, std::unique_ptr<CLqNetwork> session);
  bool awaitThreads(std::chrono::milliseconds wait);

  const Store& store_;
  KnownKeys keys_{store_};
  std::vector<std::unique_ptr<LqListener>> listeners_;
  std::vector<std::thread> threads_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::size_t running_ = 0;  // threads that have not come to their end
};
