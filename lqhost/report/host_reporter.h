// What this host tells the server of itself: keeps the newest state, numbers its reports, sends them, and
// remembers what became of that.
//
// A report always tells the whole state, so only the newest counts: one that could not be sent is kept and
// replaced by the next. What was corrected is told until the server has taken it.
//
//   ask()           before a pass, on its thread; never longer than the exchange's time-out
//   tell()          after a pass, a refresh or a push; in the resident host a thread of its own sends
//   putVerdicts()   at any time, likewise putMemory()
//
// A server that refuses the attach lacks the service. It is left alone until a pass has received a batch, or
// for an hour, because somebody may have replaced it by then.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "lqhost/pass/pass_terms.h"
#include "lqhost/report/pass_news.h"
#include "lqhost/report/report_file.h"
#include "records/host_report.h"

namespace host {

// A mutex that is waited for until a time of the steady clock. std::timed_mutex is one, too, but the thread
// sanitizer does not see how it is taken.
class TimedTurn {
 public:
  void lock() {
    std::unique_lock lock(mutex_);
    isFree_.wait(lock, [this] { return !isTaken_; });
    isTaken_ = true;
  }
  bool try_lock_until(std::chrono::steady_clock::time_point time) {
    std::unique_lock lock(mutex_);
    if (!isFree_.wait_until(lock, time, [this] { return !isTaken_; })) return false;
    isTaken_ = true;
    return true;
  }
  void unlock() {
    {
      const std::lock_guard lock(mutex_);
      isTaken_ = false;
    }
    isFree_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable isFree_;
  bool isTaken_ = false;
};

class HostReporter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kExchangeTime{30};

  // That of this process.
  static HostReporter& get();

  HostReporter() = default;
  ~HostReporter();
  HostReporter(const HostReporter&) = delete;
  HostReporter& operator=(const HostReporter&) = delete;

  // Reports the state, and returns what the server says of the batch that is fetched next. A server that
  // cannot be reached, or lacks the service, demands nothing.
  PassTerms ask();

  void tell(const PassNews& news);

  // All that modules have said since the batch that came last, and how many were asked.
  void putVerdicts(HostReport::VerdictList verdicts, std::int64_t asked);
  void putMemory(HostReport::Memory memory, const char* cause);

  // That modules are to be asked, until putVerdicts() says what they think; nothing is sent for it.
  void noteAsking();
  bool isAsking();

  // For the resident host: sends from now on on a thread of its own, the first report after `delay`; and ends
  // that, once the waits for the network have been interrupted.
  void startSending(std::chrono::duration<double> delay);
  void stopSending();

  ReportStanding standing();

 private:
  struct Sent {
    HostReport::Report report;
    std::uint64_t revision = 0;     // of the state that it tells
    std::uint64_t driftsBelow = 0;  // it tells those of lower numbers
    std::int64_t trimmed = 0;       // and that so many had been dropped
  };

  // With mutex_ held.
  void load();
  void keep();
  std::int64_t nextSequence();
  bool mergeBatch(const PassNews& news);
  void mergeProblems(const PassNews& news);
  void noteChange();
  Sent compose(const char* cause);
  void forgetDriftsOf(const Sent& sent);
  void noteTaken(const Sent& sent, const HostReport::Answer& answer);
  void noteNotTaken(const Sent& sent, const CWmError& error, bool isSent);

  bool isWorthTrying();
  bool sendUnanswered(Clock::time_point deadline);
  // `told` gets what the answer is about.
  std::optional<HostReport::Answer> exchange(const char* cause, HostReport::Report* told = nullptr);
  void confirmBatch(const HostReport::Answer& answer, const std::string& digest);
  void send(const char* cause);
  void sendAgainAndAgain(std::chrono::duration<double> delay);

  TimedTurn exchangeMutex_;  // one exchange at a time; taken before mutex_

  std::mutex mutex_;  // guards what follows
  std::condition_variable wanted_;
  std::optional<KeptReport> kept_;  // read at the first use
  std::uint64_t revision_ = 0;      // raised with each change of the state
  bool isKeptDirty_ = false;        // the file lacks something that should last
  std::int64_t sequence_ = 0;       // the last that was given out
  std::uint64_t firstDrift_ = 0;    // the number of the first drift in the list
  std::optional<Sent> unanswered_;  // may have arrived: sent again before anything else
  std::optional<Clock::time_point> lacksServiceTill_;
  bool isAway_ = false;  // the last exchange did not reach the server
  bool isResident_ = false;
  bool isStopping_ = false;
  const char* wantedCause_ = nullptr;  // what the sender is to send for
  std::thread sender_;
};

}  // namespace host
