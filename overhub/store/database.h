// The database that a store lies in: work is done in transactions, each on a session that is in order.
//
// Work that returns an error, or throws, is undone. It may run more than once and so only computes and
// stores: what it leaves in its caller's variables it assigns anew each time. Whether a session is alive
// shows only when it is used; so one that turns out dead is replaced, with the statements prepared on it, and
// the work begins again where that cannot do it twice.
//
// Any thread; several units of work run at once. Nothing is thrown.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/engine.h"

class Database {
 public:
  using Work = std::function<CWmError(soci::session& session)>;

  explicit Database(std::unique_ptr<Engine> engine);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  const Engine& engine() const { return *engine_; }

  // One state of the store, looked at. Begins again after a loss.
  CWmError read(const Work& work) const;

  // Done in whole or not at all. An error with kLqErrConnectionLost: whether it was done is not known.
  CWmError write(const Work& work) const;

  // The same as read(), for whoever keeps others waiting: a store that is away is an error at once.
  CWmError peek(const Work& work) const;

  // The same for work that finds out by itself whether it has been done, by something that it stores, or that
  // leaves the same however often it is done: it is begun again until an answer has come, or the patience
  // with the store is at its end.
  CWmError writeOnce(const Work& work) const;

  // The store's clock, in seconds since the epoch.
  std::int64_t now(soci::session& session) const;

 private:
  class Lease;
  enum class Ending { kDone, kRefused, kLostBefore, kLostAtCommit, kUnanswered, kOutOfTurn };

  std::unique_lock<std::mutex> takeTurn() const;
  std::unique_ptr<soci::session> take() const;
  void giveBack(std::unique_ptr<soci::session> session) const;
  void forgetIdle() const;
  Ending attempt(const char* begin, const Work& work, CWmError& error) const;
  CWmError repeat(const char* begin, const Work& work, bool evenAtCommit, int tries) const;

  std::unique_ptr<Engine> engine_;
  // Held by whoever writes, where the engine lets one write at a time: waiting for each other in the file
  // takes no turns, and some would wait for long.
  mutable std::mutex writing_;
  mutable std::mutex mutex_;  // guards what follows
  mutable std::condition_variable given_;
  mutable std::vector<std::unique_ptr<soci::session>> idle_;
  mutable std::size_t inUse_ = 0;
};
