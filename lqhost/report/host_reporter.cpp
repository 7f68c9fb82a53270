#include "lqhost/report/host_reporter.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "common/file_lock.h"
#include "lqhost/instance.h"
#include "lqhost/report/report_bounds.h"
#include "lqhost/report/report_exchange.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/ObDebug.h"

namespace host {

namespace {

constexpr const char* kTag = "host::HostReporter";
constexpr int kLogLevel = 2;  // a server without the service is no fault of this machine's

// Numbers are taken from the file in blocks, so that not each report writes it.
constexpr std::int64_t kNumbersAtOnce = 100;
// Held while a block is taken, between processes; never for long.
constexpr const char* kReportLock = "lqhost.report.lock";
constexpr std::chrono::seconds kLockWait{5};

constexpr std::chrono::hours kServiceRest{1};
// A report that could not be sent is tried again after so long, then less and less often; each pass tries,
// too.
constexpr std::chrono::seconds kFirstRetry{60};
constexpr std::chrono::seconds kLastRetry{3600};

// What was corrected since the server heard of it last; older entries are counted.
constexpr std::size_t kMaxKeptDrifts = 1000;

using ProblemKey = std::tuple<std::string, std::string, std::string>;

ProblemKey keyOf(const HostReport::Problem& problem) {
  return {problem.keyPath, problem.valueName, problem.kind};
}

// Whether two reports tell the same of what should outlive the process.
bool isSameState(HostReport::Report one, HostReport::Report other) {
  for (HostReport::Report* report : {&one, &other}) {
    report->sequence = 0;
    report->time = 0;
    report->cause.clear();
    report->nextSync = 0;
    report->nextRefresh = 0;
  }
  return one.equals(other);
}

}  // namespace

HostReporter& HostReporter::get() {
  static HostReporter& reporter = *new HostReporter;  // threads that outlast main may still report
  return reporter;
}

HostReporter::~HostReporter() {
  stopSending();
}

void HostReporter::load() {
  if (kept_) return;
  kept_ = readKeptReport();
  sequence_ = kept_->reserved;
}

void HostReporter::keep() {
  const KeptReport written{bounded(kept_->report), kept_->reserved, kept_->standing};
  const CWmError error = writeKeptReport(written);
  isKeptDirty_ = error.IsError();
  if (error.IsError()) ObEvent().DebugLvl(kLogLevel, kTag, "The report cannot be kept: %s", error.AsString());
}

std::int64_t HostReporter::nextSequence() {
  if (++sequence_ <= kept_->reserved) return sequence_;
  const auto between = programs::FileLock::waitFor(pathInBase(kReportLock), kLockWait);
  // Another process may have taken numbers meanwhile; one of another epoch has begun anew.
  const KeptReport others = readKeptReport();
  if (others.report.epoch.get() == kept_->report.epoch.get())
    sequence_ = std::max(sequence_, others.reserved + 1);
  kept_->reserved = sequence_ + kNumbersAtOnce - 1;
  keep();
  return sequence_;
}

void HostReporter::noteChange() {
  ++revision_;
  kept_->standing.isTaken = false;  // why the one before was not, is why this one waits
}

bool HostReporter::mergeBatch(const PassNews& news) {
  HostReport::Report& report = kept_->report;
  if (!news.batch) return false;
  if (report.digest.get() != news.batch->digest) report.asked = 0;
  report.digest = news.batch->digest;
  report.records = static_cast<std::int64_t>(news.batch->records);
  return true;
}

void HostReporter::mergeProblems(const PassNews& news) {
  HostReport::Report& report = kept_->report;
  std::map<ProblemKey, std::int64_t> since;
  HostReport::ProblemList problems;
  std::set<ProblemKey> toldAgain;
  for (const RecordProblem& told : news.problems)
    toldAgain.emplace(told.keyPath, told.valueName, told.reason.kind);
  for (const HostReport::Problem& problem : report.problems.get()) {
    since.emplace(keyOf(problem), problem.since);
    const bool isOver = news.isWhole || toldAgain.contains(keyOf(problem)) ||
                        news.settled.contains(placeOf(problem.keyPath, problem.valueName));
    if (!isOver) problems.push_back(problem);
  }
  for (const RecordProblem& told : news.problems) {
    HostReport::Problem problem;
    problem.keyPath = told.keyPath;
    problem.valueName = told.valueName;
    problem.kind = std::string(told.reason.kind);
    problem.reason = boundedText(told.reason.text);
    const auto before = since.find(keyOf(problem));
    problem.since = before == since.end() ? std::int64_t{std::time(nullptr)} : before->second;
    problems.push_back(std::move(problem));
  }
  // Those of the whole machine explain the others.
  std::stable_partition(problems.begin(), problems.end(), [](const HostReport::Problem& problem) {
    return problem.keyPath->empty() && problem.valueName->empty();
  });
  if (news.isWhole) report.problemsOmitted = 0;
  report.problems = std::move(problems);
}

void HostReporter::tell(const PassNews& news) {
  bool isWanted = false;
  {
    const std::lock_guard lock(mutex_);
    load();
    HostReport::Report& report = kept_->report;
    const HostReport::Report before = report;
    const bool hasBatch = mergeBatch(news);
    mergeProblems(news);
    if (!news.outcome.empty()) {
      report.outcome = news.outcome;
      report.outcomeText = news.outcomeText;
    }
    if (!news.cache.empty()) report.cache = news.cache;
    if (news.memory.state.isSet()) report.memory = news.memory;
    report.nextSync = news.nextSync;
    report.nextRefresh = news.nextRefresh;
    HostReport::DriftList& drifts = report.drifts.edit();
    drifts.insert(drifts.end(), news.drifts.begin(), news.drifts.end());
    if (drifts.size() > kMaxKeptDrifts) {
      const std::size_t excess = drifts.size() - kMaxKeptDrifts;
      drifts.erase(drifts.begin(), drifts.begin() + static_cast<std::ptrdiff_t>(excess));
      firstDrift_ += excess;
      report.driftsOmitted = report.driftsOmitted + static_cast<std::int64_t>(excess);
    }
    noteChange();
    if (!isSameState(before, report)) keep();
    // Where the server could not be reached a moment ago and brought no batch, it is not tried again now.
    isWanted = isWorthTrying() && (hasBatch || !isAway_);
    if (hasBatch) lacksServiceTill_.reset();
  }
  if (isWanted) send(news.cause);
}

void HostReporter::putVerdicts(HostReport::VerdictList verdicts, std::int64_t asked) {
  {
    const std::lock_guard lock(mutex_);
    load();
    kept_->report.verdicts = std::move(verdicts);
    kept_->report.asked = asked;
    kept_->report.isAsking = 0;
    noteChange();
    keep();
    if (!isWorthTrying()) return;
  }
  send(HostReport::kCauseVerdict);
}

void HostReporter::noteAsking() {
  const std::lock_guard lock(mutex_);
  load();
  kept_->report.isAsking = 1;
  noteChange();
}

bool HostReporter::isAsking() {
  const std::lock_guard lock(mutex_);
  load();
  return kept_->report.isAsking == 1;
}

void HostReporter::putMemory(HostReport::Memory memory, const char* cause) {
  {
    const std::lock_guard lock(mutex_);
    load();
    if (kept_->report.memory->equals(memory)) return;
    kept_->report.memory = std::move(memory);
    noteChange();
    keep();
    if (!isWorthTrying()) return;
  }
  send(cause);
}

PassTerms HostReporter::ask() {
  {
    const std::lock_guard lock(mutex_);
    if (!isWorthTrying()) return {};
  }
  HostReport::Report told;
  const std::optional<HostReport::Answer> answer = exchange(HostReport::kCauseAsk, &told);
  PassTerms terms;
  if (!answer) return terms;
  if (answer->demand.isSet()) terms.demand = answer->demand;
  terms.isReleased = answer->isReleased == 1;
  if (answer->goBack == 1) terms.goBackFrom = told.memory->digest;
  return terms;
}

bool HostReporter::isWorthTrying() {
  return !isStopping_ && (!lacksServiceTill_ || Clock::now() >= *lacksServiceTill_);
}

HostReporter::Sent HostReporter::compose(const char* cause) {
  load();
  Sent sent{bounded(kept_->report), revision_, firstDrift_ + kept_->report.drifts->size(),
            kept_->report.driftsOmitted};
  sent.report.version = HostReport::kVersion;
  sent.report.clientId = ownClientId();
  sent.report.sequence = nextSequence();
  sent.report.time = std::int64_t{std::time(nullptr)};
  sent.report.cause = std::string(cause);
  // Modules are in the resident host; what one that was killed had still to ask, nobody will answer.
  if (!isResident_) sent.report.isAsking = 0;
  sent.report.hostVersion = std::string(LQ_VERSION);
  return sent;
}

// A report that may have arrived goes out once more as it was, or what it tells of drift would count twice.
bool HostReporter::sendUnanswered(Clock::time_point deadline) {
  Sent sent;
  {
    const std::lock_guard lock(mutex_);
    if (!unanswered_) return true;
    sent = *unanswered_;
  }
  HostReport::Answer answer;
  bool isSent = false;
  const CWmError error = exchangeReport(sent.report, deadline, answer, isSent);
  const std::lock_guard lock(mutex_);
  if (!error.IsError()) {
    unanswered_.reset();
    forgetDriftsOf(sent);
    return true;
  }
  noteNotTaken(sent, error, isSent);
  return error.GetCode() == kLqErrRequestRefused;  // it counts as never sent
}

std::optional<HostReport::Answer> HostReporter::exchange(const char* cause, HostReport::Report* told) {
  const Clock::time_point deadline = Clock::now() + kExchangeTime;
  const std::unique_lock turn(exchangeMutex_, deadline);
  if (!turn.owns_lock()) return std::nullopt;  // the one under way tells the server nearly the same
  if (!sendUnanswered(deadline)) return std::nullopt;
  Sent sent;
  {
    const std::lock_guard lock(mutex_);
    sent = compose(cause);
  }
  HostReport::Answer answer;
  bool isSent = false;
  const CWmError error = exchangeReport(sent.report, deadline, answer, isSent);
  {
    const std::lock_guard lock(mutex_);
    if (error.IsError()) {
      noteNotTaken(sent, error, isSent);
      return std::nullopt;
    }
    noteTaken(sent, answer);
  }
  confirmBatch(answer, sent.report.digest);
  if (told != nullptr) *told = std::move(sent.report);
  return answer;
}

// The next report tells that it is so.
void HostReporter::confirmBatch(const HostReport::Answer& answer, const std::string& digest) {
  if (answer.isConfirmed != 1 || !confirmChanges(digest)) return;
  HostReport::Memory memory = memoryState();
  const std::lock_guard lock(mutex_);
  kept_->report.memory = std::move(memory);
  noteChange();
  keep();
}

// Of those that did not fit the server has heard the number.
void HostReporter::forgetDriftsOf(const Sent& sent) {
  HostReport::Report& report = kept_->report;
  const std::uint64_t told = sent.driftsBelow > firstDrift_ ? sent.driftsBelow - firstDrift_ : 0;
  if (told == 0 && sent.trimmed == 0) return;
  HostReport::DriftList& drifts = report.drifts.edit();
  drifts.erase(drifts.begin(), drifts.begin() + static_cast<std::ptrdiff_t>(told));
  firstDrift_ += told;
  report.driftsOmitted = report.driftsOmitted - sent.trimmed;
  isKeptDirty_ = true;
}

void HostReporter::noteTaken(const Sent& sent, const HostReport::Answer& answer) {
  HostReport::Report& report = kept_->report;
  unanswered_.reset();
  isAway_ = false;
  lacksServiceTill_.reset();
  kept_->standing.accepted = std::time(nullptr);
  forgetDriftsOf(sent);
  bool haveOriginsCome = false;
  if (!answer.origins->empty()) {
    std::string text;
    if (answer.serialize(text, false) == 0 &&
        !FXFile::ReplaceContents(pathInBase(kOriginsFile), text).IsError()) {
      report.originsOf = sent.report.digest.get();
      isKeptDirty_ = true;
      haveOriginsCome = true;  // whoever reads them has to know of which batch they are
    }
  }
  if (sent.revision == revision_) {
    isKeptDirty_ = isKeptDirty_ || !kept_->standing.isTaken;
    kept_->standing.isTaken = true;
    kept_->standing.whyNot.clear();
  }
  // A command's word is all that there is of it afterwards.
  if (isKeptDirty_ && (!isResident_ || haveOriginsCome)) keep();
}

void HostReporter::noteNotTaken(const Sent& sent, const CWmError& error, bool isSent) {
  const std::uint32_t code = error.GetCode();
  ObEvent().DebugLvl(kLogLevel, kTag, "The report was not taken: %s", error.AsString());
  isAway_ = code != kLqErrRequestRefused && code != kLqErrAttachRefused;
  if (code == kLqErrAttachRefused) lacksServiceTill_ = Clock::now() + kServiceRest;
  // The server may have stored it: with the same number again, it does not count twice.
  if (isSent && code != kLqErrRequestRefused) unanswered_ = sent;
  if (code == kLqErrRequestRefused) unanswered_.reset();
  const std::string why = code == kLqErrAttachRefused
                              ? std::string("the server takes no reports (") + error.AsString() + ")"
                              : error.AsString();
  isKeptDirty_ = isKeptDirty_ || kept_->standing.whyNot != why;
  kept_->standing.whyNot = boundedText(why);
  if (isKeptDirty_ && !isResident_) keep();
}

void HostReporter::send(const char* cause) {
  {
    const std::lock_guard lock(mutex_);
    if (isResident_) {
      wantedCause_ = cause;
      wanted_.notify_all();
      return;
    }
  }
  static_cast<void>(exchange(cause));  // what became of it is noted
}

void HostReporter::startSending(std::chrono::duration<double> delay) {
  const std::lock_guard lock(mutex_);
  isResident_ = true;
  isStopping_ = false;
  sender_ = std::thread([this, delay] { sendAgainAndAgain(delay); });
}

void HostReporter::stopSending() {
  {
    const std::lock_guard lock(mutex_);
    if (!isResident_) return;
    isStopping_ = true;
  }
  wanted_.notify_all();
  if (sender_.joinable()) sender_.join();
  const std::lock_guard lock(mutex_);
  isResident_ = false;
  load();
  keep();
}

void HostReporter::sendAgainAndAgain(std::chrono::duration<double> delay) {
  const auto sendNow = [this](const char* cause) {
    try {
      return exchange(cause).has_value();
    } catch (const std::exception& fault) {  // out of memory, in all likelihood; not to take the host with it
      ObEvent().Error(kTag, "The report broke off: %s", fault.what());
      return false;
    }
  };
  std::unique_lock lock(mutex_);
  const auto isWanted = [this] { return isStopping_ || wantedCause_ != nullptr; };
  if (!wanted_.wait_for(lock, delay, isWanted)) wantedCause_ = HostReport::kCauseStart;
  std::chrono::seconds retry = kFirstRetry;
  while (!isStopping_) {
    if (wantedCause_ != nullptr) {
      const char* const cause = std::exchange(wantedCause_, nullptr);
      lock.unlock();
      const bool isTaken = sendNow(cause);
      lock.lock();
      retry = isTaken ? kFirstRetry : std::min(retry * 2, kLastRetry);
      continue;
    }
    if (kept_ && !kept_->standing.isTaken && isWorthTrying()) {
      if (!wanted_.wait_for(lock, retry, isWanted) && !kept_->standing.isTaken && isWorthTrying())
        wantedCause_ = HostReport::kCauseSync;
    } else {
      wanted_.wait(lock, isWanted);
    }
  }
}

ReportStanding HostReporter::standing() {
  const std::lock_guard lock(mutex_);
  load();
  return kept_->standing;
}

}  // namespace host
