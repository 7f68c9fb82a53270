// The resident host's end of the socket by which commands reach it (command_protocol.h).
//
// Whoever asks must be root or the user that the resident runs as; the socket's mode says so, and the
// kernel's word on who is at the other end is checked as well.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "lqhost/command_result.h"
#include "lqregistry/CWmError.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqThreadPool.h"

namespace host {

// Whether a process of user `peer` may ask one of user `own`.
bool mayAsk(uid_t peer, uid_t own);

// The resident's end.
class ResidentSocket {
 public:
  using Answer = std::function<CommandResult(const std::string& question)>;

  ResidentSocket();
  ~ResidentSocket();  // answers what was asked, removes the socket
  ResidentSocket(const ResidentSocket&) = delete;
  ResidentSocket& operator=(const ResidentSocket&) = delete;

  // Makes the socket, in place of one that a killed process left. Callers wait from now on.
  CWmError open();
  // Answers them. Each question is answered on a thread of a small pool, several at a time.
  CWmError serve(Answer answer);
  // Accepts no more callers and lets those under way be answered. False when one is still at it after a
  // while: what its command uses must not be torn down.
  bool finish();

 private:
  struct Caller;
  static void* answerOnPool(void* caller);
  void accept();
  void answerOn(int connection) const;

  auto_handle directory_;
  auto_handle listener_;
  auto_handle stop_;  // readable once the end has come
  Answer answer_;
  LqThreadPool pool_;
  std::thread acceptor_;
};

}  // namespace host
