// Runs the product's two periodic tasks, for the schedule and for the commands, so that registry and settings
// cache stay together: each run under the note of pass/unsettled_work.h, watched, logged, and noted for
// `lqhost status`.
//
// clang-format off
//   under way        a download            a refresh                     a push
//   a download       waits                 waits                         goes on, its note stays
//   a refresh        waits                 waits                         waits
//   a push           begins after it       is put off                    waits
// clang-format on
//
// A download begins only after a push under way has been applied: its reply was asked for after that, so its
// cache can hold what was pushed. A refresh waits for a pass of another process before it looks at the note,
// so it is short for a push that waits for it.
//
// What a download or a push changes is noted before it is applied (rollback/change_note.h). A download ends
// with going back where that is overdue: it has just been tried, once more, to reach the server.
// Before a download the server is asked for its terms, of which one is to go back first, and after each of
// the three it is told what came of it (report/host_reporter.h), before and after the turn, so that nobody
// waits for that. Neither makes a pass fail.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "lqhost/pass/pass_outcome.h"
#include "lqhost/pass/refresh_outcome.h"
#include "lqhost/pass/unsettled_work.h"
#include "lqhost/report/host_reporter.h"
#include "lqhost/report/pass_news.h"
#include "lqhost/rollback/change_note.h"
#include "lqhost/rollback/going_back.h"
#include "lqhost/service/product_library.h"
#include "lqhost/service/task_runs.h"

namespace host {

// What becomes, before a synchronisation begins, of the cache that there is.
enum class OldCache { kStays, kDropped };

class Passes {
 public:
  // Finds the callbacks in the product, which must outlive this.
  explicit Passes(ProductLibrary& product);

  // Whether it can be used.
  const CWmError& error() const { return error_; }
  TaskCallback downloadStart() const { return downloadStart_; }

  // Runs a synchronisation on this thread. With `report`, which gets the text of pass_report.h, each value is
  // looked at before and after, and the outcome goes by what is found. A cache is dropped only where the note
  // stands on disk and synchronisation is not switched off.
  PassResult download(LqPeriodicTaskStatus& status);
  PassResult downloadWithReport(LqPeriodicTaskStatus& status, std::string& report, OldCache oldCache);

  // Runs a refresh on this thread, unless a note stands.
  RefreshResult refresh(LqPeriodicTaskStatus& status);

  // Who asks the server for its terms before a download, instead of the reporter. To be set before any.
  void onAsk(std::function<PassTerms()> ask) { ask_ = std::move(ask); }

  // Goes back to what was before the newest changes, now.
  WentBack goBackNow(const std::string& reason);
  // Ends what was begun, and drops a memory of changes that never came about: for the start of a host.
  void takeUpMemory();
  // Goes back where that is due, for who cannot even begin to synchronise. True when it did.
  bool goBackWhereOverdue();
  // Goes back where that is due, after a download that has tried to avert it.
  void keepDeadline();
  // From now on a pass that fails may have been broken off: nothing goes back for that.
  void requestStop() { isStopping_ = true; }

 private:
  WentBack goBackInTurn(const std::string& reason);
  // Both with the turn; why it did, empty when it did not.
  std::string goBackWhereDue();
  std::string goBackUnderLocks(const std::string& reason);
  PassResult runDownload(LqPeriodicTaskStatus& status, std::string* text, OldCache oldCache);
  PassResult runDownloadInTurn(LqPeriodicTaskStatus& status, std::string* text, OldCache oldCache,
                               const PassTerms& terms, PassNews& news);
  RefreshResult refreshInTurn(LqPeriodicTaskStatus& status, PassNews& news);

  CWmError error_;
  TaskCallback downloadStart_ = nullptr;
  TaskCallback downloadTimer_ = nullptr;
  TaskCallback refreshTimer_ = nullptr;
  std::function<PassTerms()> ask_ = [] { return HostReporter::get().ask(); };
  std::atomic<bool> isStopping_{false};
};

// Whether a synchronisation would be skipped, as the product asks before it begins.
bool isSynchronisationOff();

// A batch that the server pushes, around the moment in which it is applied.
class PushScope {
 public:
  PushScope();  // waits for a refresh under way; notes the push
  ~PushScope() { note_.finish(); }
  PushScope(const PushScope&) = delete;
  PushScope& operator=(const PushScope&) = delete;

  // Why the batch must not be applied; empty when it may.
  std::string arrive(const OBGui::KeyList& keys) { return note_.arrive(keys); }

  // Nothing was applied: no synchronisation has to follow.
  void withdraw() { work_.restore(); }

  // Whether registry and cache belonged together before.
  bool beganSettled() const { return !work_.hasFoundNote(); }

 private:
  std::unique_lock<std::mutex> lock_;
  ChangeNote note_;
  UnsettledWork work_;
};

// Reports a push, in the resident host without waiting for the server.
void reportPush(bool isApplied, const BatchFacts& batch, const RegistryWrites& writes,
                HostReport::DriftList drifts);

// What to do when a synchronisation should come soon: set by the resident host, empty otherwise. Any thread.
void onDownloadWanted(std::function<void()> action);
void wantDownload();

// Who hears, at once and on the thread that did it, what a pass, a refresh, a push or going back has written:
// set by the resident host, empty otherwise. It must not wait. Any thread.
void onChanged(std::function<void(const RegistryWrites& writes)> action);

}  // namespace host
