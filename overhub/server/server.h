// The server: listens, gives each caller a thread, and stops in order.
//
// A caller that is accepted while kMaxSessions others are served waits, and behind it the rest wait in the
// system's accept queue, so that a flood costs other clients time and nothing else. One thread per listener
// accepts; the sessions' threads share nothing but the count of them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/data_store.h"

inline constexpr std::size_t kMaxSessions = 64;
// How long running sessions may go on once the server is asked to stop.
inline constexpr int kStopSeconds = 5;

class Server {
 public:
  explicit Server(const DataStore& store) : store_(store) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Opens one more address and port; before start().
  CWmError listen(const std::string& address, std::uint16_t port);

  void start();

  // Turns new callers away and waits for the sessions, at most kStopSeconds. Gives the number of sessions
  // that still run then; unless it is 0 the object must not be destroyed, only the process ended.
  std::size_t stop();

 private:
  struct Worker {
    std::thread thread;
    bool isDone = false;
  };

  void acceptCallers(LqListener& listener);
  // Blocks until there is room for one more session and takes it; false when the server stops instead.
  bool takeRoom();
  void giveRoomBack();
  // Throws when no thread can be had.
  void startSession(std::unique_ptr<CLqNetwork> network);
  void runSession(Worker& worker, std::unique_ptr<CLqNetwork> network);
  // Forgets sessions that are over. With the mutex held.
  void joinFinished();

  const DataStore& store_;
  std::vector<std::unique_ptr<LqListener>> listeners_;
  std::vector<std::thread> acceptors_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::list<Worker> workers_;
  std::size_t running_ = 0;  // sessions that have room, started or about to be
  bool stopping_ = false;
};
