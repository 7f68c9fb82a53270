#include "lqhost/service/passes.h"

#include <chrono>
#include <ctime>
#include <utility>

#include "common/file_lock.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cache_before.h"
#include "lqhost/pass/cache_watch.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/pass/pass_report.h"
#include "lqhost/pass/pass_watch.h"
#include "lqhost/report/drift.h"
#include "lqhost/report/host_reporter.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/periodic_task.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::Passes";
constexpr const char* kGoingBackTask = "going back";
constexpr const char* kTakenBack = "the server took it back, since it failed on other machines";
constexpr int kNotBegun = -1;  // in place of what the product's callback would have said

// Taken in this order. A download holds the first for its length and the second while it begins; a refresh
// holds both; a push holds the second.
std::mutex passMutex;
std::mutex applyMutex;

std::mutex wantedMutex;
std::function<void()> wanted;  // guarded by wantedMutex

std::mutex changedMutex;
std::function<void(const RegistryWrites&)> changed;  // guarded by changedMutex

void tellChanged(const RegistryWrites& writes) {
  const std::lock_guard lock(changedMutex);
  if (changed) changed(writes);
}

// A pass, from the look at the note to the note's end: one at a time in this process, and between processes,
// because whoever has found no note must not refresh over what another one applies meanwhile. Whoever has
// waited as long as the product would goes on: the other's note stands by then, and they are kept apart by
// the product's own lock.
class Turn {
 public:
  Turn() : inProcess_(passMutex), between_(programs::FileLock::waitFor(pathInBase(kTurnLock), kTurnWait)) {}

 private:
  static constexpr const char* kTurnLock = "lqhost.pass";
  static constexpr std::chrono::seconds kTurnWait{60};

  std::lock_guard<std::mutex> inProcess_;
  programs::FileLock between_;
};

class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  }

 private:
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

UnsettledWork beginPass() {
  const std::lock_guard lock(applyMutex);
  return UnsettledWork(Unsettled::kPass);
}

// The note comes first: a kill from here on leaves it, and so a synchronisation and no refresh.
CWmError dropCache(const UnsettledWork& work, bool& wasThere) {
  if (work.error().IsError()) return work.error();
  return dropCachedSettings(LqPassLock("drop of the cache"), baseDirectory(), wasThere);
}

// Why refreshes are held back after a pass that brought a batch; nothing when its cache is on disk.
std::optional<Unsettled> whyHeldBack(CacheFate cache) {
  if (cache == CacheFate::kStored && CacheWatch::sync()) return std::nullopt;
  if (cache == CacheFate::kKept) return Unsettled::kCacheKept;
  return cache == CacheFate::kUnreadable ? Unsettled::kCacheUnreadable : Unsettled::kCacheLost;
}

// Ends the note of a pass by what became of it.
void endPass(UnsettledWork& work, const PassResult& result) {
  if (!result.received) {
    if (!result.isCacheDropped) return work.restore();
    work.leave(Unsettled::kCacheDropped);
    return wantDownload();
  }
  const std::optional<Unsettled> why = whyHeldBack(result.cache);
  if (why) return work.leave(*why);
  work.settle();
}

bool isResidentHere() {
  const std::lock_guard lock(wantedMutex);
  return wanted != nullptr;
}

// When the task runs next, once this run is over; 0 where nothing is scheduled. What the schedule has noted
// may be of the run under way, after which it is due when its frequency says.
std::int64_t nextRun(const Task& task, const LqPeriodicTaskStatus* running) {
  if (!isResidentHere()) return 0;
  const std::time_t now = std::time(nullptr);
  const std::optional<TaskNote> note = readNote(task);
  if (note && note->nextRun > now) return note->nextRun;
  return running == nullptr ? 0 : now + boundedFrequency(running->getFrequency());
}

// Outside of the turn: nobody has to wait for what the server says to it.
void report(PassNews news, const LqPeriodicTaskStatus* download, const LqPeriodicTaskStatus* refresh) {
  news.memory = memoryState();
  news.nextSync = nextRun(kDownloadTask, download);
  news.nextRefresh = nextRun(kRefreshTask, refresh);
  HostReporter::get().tell(news);
}

}  // namespace

Passes::Passes(ProductLibrary& product)
    : downloadStart_(product.findTask(kDownloadTask.startCallback)),
      downloadTimer_(product.findTask(kDownloadTask.timerCallback)),
      refreshTimer_(product.findTask(kRefreshTask.timerCallback)) {
  if (downloadStart_ == nullptr || downloadTimer_ == nullptr || refreshTimer_ == nullptr)
    error_ = product.error();
}

PassResult Passes::download(LqPeriodicTaskStatus& status) {
  return runDownload(status, nullptr, OldCache::kStays);
}

PassResult Passes::downloadWithReport(LqPeriodicTaskStatus& status, std::string& report, OldCache oldCache) {
  return runDownload(status, &report, oldCache);
}

PassResult Passes::runDownload(LqPeriodicTaskStatus& status, std::string* text, OldCache oldCache) {
  const PassTerms terms = isSynchronisationOff() ? PassTerms() : ask_();
  PassNews news;
  PassResult result = runDownloadInTurn(status, text, oldCache, terms, news);
  report(std::move(news), &status, nullptr);
  return result;
}

PassResult Passes::runDownloadInTurn(LqPeriodicTaskStatus& status, std::string* text, OldCache oldCache,
                                     const PassTerms& terms, PassNews& news) {
  const Turn turn;
  if (isThere(MemoryFile::kGoing)) goBackWhereDue();
  // Unless another process has changed something else since the server was asked.
  if (isKept(terms.goBackFrom)) {
    const WritesWatch writes;
    goBackUnderLocks(kTakenBack);
    tellChanged(writes.writes());
  }
  ChangeNote note(BatchKind::kWhole, terms, standingNote());
  UnsettledWork work = beginPass();
  bool isCacheDropped = false;
  // Nothing would replace a cache that is dropped now.
  if (oldCache == OldCache::kDropped && !isSynchronisationOff()) {
    const CWmError error = dropCache(work, isCacheDropped);
    if (error.IsError()) {
      PassResult none;
      none.taskResult = kNotBegun;
      none.isCacheDropped = isCacheDropped;
      none.dropError = error;
      endPass(work, none);
      news = newsOf(none, std::nullopt, {});
      return none;
    }
  }
  const std::time_t started = std::time(nullptr);
  const Stopwatch watch;
  const CacheWatch cache;
  const CacheBefore cacheBefore;
  PassDetails details;
  PassWatch pass(text == nullptr ? nullptr : &details,
                 [&note](const OBGui::KeyList& keys) { return note.arrive(keys); });
  const int taskResult = downloadTimer_(&status);
  PassResult result = pass.result();
  result.taskResult = taskResult;
  note.finish();
  result.mayComeAgain = note.mayComeAgain();
  result.memoryError = note.error();
  result.noteError = work.error();
  result.terms = terms;
  result.isCacheDropped = isCacheDropped;
  if (result.received) {
    result.cache = cache.fate(*result.received);
    if (text != nullptr) {
      details.writes = pass.writes();
      BatchReport batch = reportOf(std::move(details));
      *text = std::move(batch.text);
      result.failedRecords = batch.failed;
    }
  }
  news = newsOf(result, pass.facts(), pass.writes());
  if (!work.hasFoundNote()) news.drifts = driftOf(pass.writes(), cacheBefore, started);
  endPass(work, result);
  noteRun(kDownloadTask, started, watch.seconds(), taskResult, result.outcome());
  if (!result.refusal.empty())
    ObEvent().Error(kTag, "The server could not record the acknowledgement: %s", result.refusal.c_str());
  if (!result.heldBack.empty())
    ObEvent().Error(kTag, "The batch was not applied: %s", result.heldBack.c_str());
  result.wentBack = goBackWhereDue();
  tellChanged(pass.writes());
  // A pass over the new way shows that it is one.
  if (note.hasChangedWayBack()) wantDownload();
  return result;
}

std::string Passes::goBackWhereDue() {
  if (isStopping_ || secondsUntilGoingBack() != 0) return {};
  std::string reason = goBackUnderLocks(overdueReason());
  if (!reason.empty()) wantDownload();  // so that the server hears of it
  return reason;
}

std::string Passes::goBackUnderLocks(const std::string& reason) {
  const std::lock_guard applyLock(applyMutex);
  const LqPassLock lock(kGoingBackTask);
  if (!lock.isHeld()) {
    ObEvent().Error(kTag, "Going back is put off: %s", lock.reason().c_str());
    return {};
  }
  if (goBack(reason).error.IsError()) return {};  // it has logged why
  return reason;
}

WentBack Passes::goBackNow(const std::string& reason) {
  WentBack back = goBackInTurn(reason);
  HostReporter::get().putMemory(memoryState(), HostReport::kCauseRollback);
  return back;
}

WentBack Passes::goBackInTurn(const std::string& reason) {
  const Turn turn;
  const std::lock_guard applyLock(applyMutex);
  const LqPassLock lock(kGoingBackTask);
  if (lock.isHeld()) {
    const WritesWatch writes;
    WentBack back = goBack(reason);
    tellChanged(writes.writes());
    return back;
  }
  WentBack none;
  none.error = {kLqErrFile, lock.reason()};
  return none;
}

void Passes::takeUpMemory() {
  const Turn turn;
  if (isThere(MemoryFile::kGoing)) goBackWhereDue();
  dropWhatNeverHappened();
}

bool Passes::goBackWhereOverdue() {
  const Turn turn;
  return !goBackWhereDue().empty();
}

void Passes::keepDeadline() {
  if (isStopping_ || secondsUntilGoingBack() != 0) return;
  LqPeriodicTaskStatus status;
  static_cast<void>(download(status));
}

RefreshResult Passes::refresh(LqPeriodicTaskStatus& status) {
  PassNews news;
  RefreshResult result = refreshInTurn(status, news);
  if (!result.reason) report(std::move(news), nullptr, &status);
  return result;
}

RefreshResult Passes::refreshInTurn(LqPeriodicTaskStatus& status, PassNews& news) {
  const Turn turn;
  if (isThere(MemoryFile::kGoing)) goBackWhereDue();
  const std::lock_guard applyLock(applyMutex);
  const std::time_t started = std::time(nullptr);
  if (std::optional<UnsettledNote> note = standingNote()) {
    ObEvent().Error(kTag, "No refresh before the next synchronisation: %s", unsettledText(*note).c_str());
    noteRun(kRefreshTask, started, 0, 0, RunOutcome::kPutOff);
    return {RunOutcome::kPutOff, note};
  }
  RefreshResult result;
  if (isThere(MemoryFile::kGoing)) {  // the cache may be the one that it goes back from
    noteRun(kRefreshTask, started, 0, 0, RunOutcome::kPutOff);
    result.run = RunOutcome::kPutOff;
    return result;
  }
  const Stopwatch watch;
  const CacheWatch cache;
  const CacheBefore cacheBefore;
  RefreshNote note;
  WritesWatch writes;
  const int taskResult = refreshTimer_(&status);
  note.finish();
  result.run = judgeRefresh(taskResult, cache);
  if (result.run == RunOutcome::kCacheLost) {
    const UnsettledWork stays(Unsettled::kCacheLost);  // until a synchronisation has stored another
  }
  result.writes = writes.take();
  tellChanged(result.writes);
  news = newsOf(result);
  news.drifts = driftOf(result.writes, cacheBefore, started);
  noteRun(kRefreshTask, started, watch.seconds(), taskResult, result.run);
  return result;
}

bool isSynchronisationOff() {
  std::int64_t enabled = 0;
  LQPlatformInfo().getNumber(lqsettings::kSyncEnabled.key, lqsettings::kSyncEnabled.name, enabled);
  return enabled == 0 || LQPI_Session(0, 1).IsAntiChatterFlagOn() != 0;
}

void reportPush(bool isApplied, const BatchFacts& batch, const RegistryWrites& writes,
                HostReport::DriftList drifts) {
  PassNews news = newsOfPush(isApplied, batch, writes);
  news.drifts = std::move(drifts);
  report(std::move(news), nullptr, nullptr);
  tellChanged(writes);
}

PushScope::PushScope()
    : lock_(applyMutex), note_(BatchKind::kPart, {}, standingNote()), work_(Unsettled::kPush) {}

void onDownloadWanted(std::function<void()> action) {
  const std::lock_guard lock(wantedMutex);
  wanted = std::move(action);
}

void onChanged(std::function<void(const RegistryWrites&)> action) {
  const std::lock_guard lock(changedMutex);
  changed = std::move(action);
}

void wantDownload() {
  const std::lock_guard lock(wantedMutex);
  if (wanted) wanted();
}

}  // namespace host
