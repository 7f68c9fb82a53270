#include "overhub/store/database.h"

#include <soci/soci.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

// More than that wait for each other: a server has a thread a session, and an engine fewer connections.
constexpr std::size_t kMaxSessions = 16;
// Then others are told that the store is at fault. Longer than a COMMIT may take, which may be what all wait
// for.
constexpr std::chrono::seconds kSessionPatience{40};

// How often work is begun again, and how long it is waited in between: a quarter of a second, twice that, and
// so on. In all about half a minute, which a standby takes at most to become the primary.
constexpr int kTries = 8;
constexpr int kTriesOnTheSpot = 3;  // for what somebody waits for, who can come again
constexpr std::chrono::milliseconds kFirstPause{250};
constexpr std::chrono::milliseconds kLongestPause{8000};

}  // namespace

// A session for one unit of work. It goes back to the others unless something was wrong with it.
class Database::Lease {
 public:
  explicit Lease(const Database& database) : database_(database), session_(database.take()) {}
  ~Lease() { database_.giveBack(std::move(session_)); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  soci::session& session() { return *session_; }
  void drop() { session_.reset(); }

 private:
  const Database& database_;
  std::unique_ptr<soci::session> session_;
};

Database::Database(std::unique_ptr<Engine> engine) : engine_(std::move(engine)) {}
Database::~Database() = default;

std::unique_lock<std::mutex> Database::takeTurn() const {
  return engine_->writesOneAtATime() ? std::unique_lock(writing_) : std::unique_lock<std::mutex>();
}

std::unique_ptr<soci::session> Database::take() const {
  {
    std::unique_lock lock(mutex_);
    if (!given_.wait_for(lock, kSessionPatience, [this] { return inUse_ < kMaxSessions; }))
      throw std::runtime_error("all its sessions have been busy for " +
                               std::to_string(kSessionPatience.count()) + " s");
    ++inUse_;
    if (!idle_.empty()) {
      auto session = std::move(idle_.back());
      idle_.pop_back();
      return session;
    }
  }
  try {
    return engine_->connect();
  } catch (...) {
    giveBack(nullptr);
    throw;
  }
}

void Database::giveBack(std::unique_ptr<soci::session> session) const {
  const std::lock_guard lock(mutex_);
  --inUse_;
  if (session) idle_.push_back(std::move(session));
  given_.notify_one();
}

void Database::forgetIdle() const {
  std::vector<std::unique_ptr<soci::session>> stale;
  const std::lock_guard lock(mutex_);
  stale.swap(idle_);
}

Database::Ending Database::attempt(const char* begin, const Work& work, CWmError& error) const {
  bool isCommitting = false;
  try {
    Lease lease(*this);
    try {
      lease.session() << begin;
      error = work(lease.session());
      if (error.IsError()) {
        lease.session() << "ROLLBACK";
        return Ending::kRefused;
      }
      isCommitting = true;
      engine_->commit(lease.session());
      return Ending::kDone;
    } catch (...) {
      lease.drop();  // whatever it was in the middle of ends with it
      throw;
    }
  } catch (const std::exception& fault) {
    const Fault kind = engine_->faultOf(fault);
    if (kind == Fault::kOutOfTurn) {
      error = {kLqErrFile, engine_->explain(fault)};
      return Ending::kOutOfTurn;
    }
    if (kind == Fault::kUnanswered) {
      error = {kLqErrConnectionLost, engine_->explain(fault)};
      return Ending::kUnanswered;
    }
    if (kind != Fault::kLost) {
      error = {kLqErrFile, engine_->explain(fault)};
      return Ending::kRefused;
    }
    forgetIdle();
    error = {kLqErrConnectionLost, engine_->explain(fault)};
    return isCommitting ? Ending::kLostAtCommit : Ending::kLostBefore;
  }
}

CWmError Database::repeat(const char* begin, const Work& work, bool evenAtCommit, int tries) const {
  CWmError error;
  auto pause = kFirstPause;
  while (true) {
    const Ending ending = attempt(begin, work, error);
    if (ending == Ending::kDone || ending == Ending::kRefused || ending == Ending::kUnanswered) return error;
    if (ending == Ending::kLostAtCommit && !evenAtCommit) return error;
    if (--tries == 0) return error;
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, kLongestPause);
  }
}

CWmError Database::read(const Work& work) const {
  return repeat(engine_->beginReading(), work, true, kTriesOnTheSpot);
}

CWmError Database::peek(const Work& work) const {
  return repeat(engine_->beginReading(), work, true, 1);
}

CWmError Database::write(const Work& work) const {
  const auto turn = takeTurn();
  return repeat(engine_->beginWriting(), work, false, kTriesOnTheSpot);
}

CWmError Database::writeOnce(const Work& work) const {
  const auto turn = takeTurn();
  return repeat(engine_->beginWriting(), work, true, kTries);
}

std::int64_t Database::now(soci::session& session) const {
  std::int64_t time = 0;
  session << "SELECT " << engine_->now(), soci::into(time);
  // Neither a clock that was set back nor that of a standby that has taken over lets what has ended begin
  // again.
  std::int64_t newest = 0;
  session << "SELECT time FROM revisions WHERE number = (SELECT MAX(number) FROM revisions)",
      soci::into(newest);
  return std::max(time, newest);
}
