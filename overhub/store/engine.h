// A database engine: how to reach it, and the few things in which one differs from another. Every statement
// of the store is the same on all of them.
//
// Objects do not change once made; any thread.
#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include "lqregistry/CWmError.h"

namespace soci {
class session;
}

// What an engine's exception means for whoever runs a transaction.
enum class Fault {
  kOther,       // trying again would not help
  kLost,        // the connection is gone; whether a COMMIT was carried out is not known
  kUnanswered,  // a COMMIT was given up that took too long; so would the next, and this one may be carried
                // out
  kOutOfTurn,   // somebody else was in the way; nothing was done, and a new try may succeed
};

class Engine {
 public:
  virtual ~Engine() = default;

  // A new session, set up for use. Throws what faultOf() understands.
  virtual std::unique_ptr<soci::session> connect() const = 0;
  // Why there cannot be a store, or none can be reached, that connect() would not say clearly; silent when
  // there is nothing to say.
  virtual CWmError check() const = 0;
  // Makes the place for a new store where the engine does not do so itself.
  virtual CWmError prepare() const = 0;
  virtual Fault faultOf(const std::exception& fault) const = 0;
  // What is wrong, and the way out.
  virtual std::string explain(const std::exception& fault) const = 0;
  // What an administrator should know of how safely changes are kept; empty when all is well.
  virtual std::string doubt(soci::session& session) const = 0;

  // Ends a transaction; what throws leaves a session that is of no use any more.
  virtual void commit(soci::session& session) const = 0;

  virtual const char* beginReading() const = 0;  // a transaction that sees one state and changes nothing
  virtual const char* beginWriting()
      const = 0;  // one that waits its turn at its beginning, or at its first write
  // Whether a second writer waits for the first in any case.
  virtual bool writesOneAtATime() const = 0;
  // Selects whether there is a table `counters`, and how many tables there are.
  virtual const char* tables() const = 0;
  virtual const char* now() const = 0;  // the store's clock, whole seconds since the epoch

  // For texts; without passwords.
  const std::string& place() const { return place_; }

 protected:
  explicit Engine(std::string place) : place_(std::move(place)) {}

 private:
  std::string place_;
};

// SQLite, in one file of mode 0600.
std::unique_ptr<Engine> sqliteEngine(const std::string& file);

// As long as a COMMIT may wait for a synchronous standby that is away.
inline constexpr std::chrono::milliseconds kCommitPatience{30'000};

// PostgreSQL, by a URI as its own tools take it; several hosts are tried in turn for the one that writes.
std::unique_ptr<Engine> postgresqlEngine(const std::string& uri,
                                         std::chrono::milliseconds commitPatience = kCommitPatience);
