#include "lqhost/service/verdict_asker.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <utility>

#include "lqhost/pass/current_value.h"
#include "lqhost/report/host_reporter.h"
#include "lqhost/report/report_file.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/passes.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqVerdicts.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/pstring.h"
#include "records/record_rules.h"

namespace host {

namespace {

// A module that hangs is looked at again after this time.
constexpr std::chrono::seconds kAskAgain{60};

// The pair as it stands in the registry now, as a record of the server would say it.
void setValue(OBGui::RegistryKeyInfo& key, const CurrentValue& now) {
  key.deleteFlag = now ? 0 : 1;
  key.enabledFlag = 1;
  key.valueType = STRINGTYPE;
  pstring secret;
  if (now && pstring::fromStoredText(*now, secret)) {
    key.valueType = ENCRYPTEDTYPE;
    key.encryptedValue = std::move(secret);
  } else if (now) {
    key.value = *now;
  }
}

HostReport::Verdict verdictOf(const LqVerdicts::Told& told) {
  HostReport::Verdict verdict;
  verdict.module = told.module;
  verdict.keyPath = told.keyPath;
  verdict.valueName = told.valueName;
  verdict.verdict = told.verdict;
  verdict.sentence = told.sentence;
  verdict.since = told.since;
  return verdict;
}

bool isSame(const HostReport::Verdict& a, const HostReport::Verdict& b) {
  return a.module.get() == b.module.get() && a.verdict.get() == b.verdict.get() &&
         a.sentence.get() == b.sentence.get();
}

}  // namespace

VerdictAsker& VerdictAsker::get() {
  static auto* const instance = new VerdictAsker;
  return *instance;
}

void VerdictAsker::start(std::function<void(const std::string&)> goBack) {
  goBack_ = std::move(goBack);
  {
    // What the host before this one was told is over, whichever modules there are now.
    const std::lock_guard lock(mutex_);
    isTold_ = !readKeptReport().report.verdicts->empty();
  }
  onChanged([this](const RegistryWrites& writes) { noteChanged(writes); });
  LqRegistryChangeMgr::callBackThreadPool.setFaultObserver(
      [this](const std::string& lane, const std::string& what) { noteFault(lane, what); });
  thread_ = std::jthread([this](const std::stop_token& stop) { keepAsking(stop); });
}

void VerdictAsker::stop() {
  onChanged({});
  LqRegistryChangeMgr::callBackThreadPool.setFaultObserver({});
  thread_ = {};
}

void VerdictAsker::noteChanged(const RegistryWrites& writes) {
  if (writes.changed.empty() || writes.lost) return;
  const std::vector<LqVerdicts::Registration> all = LqVerdicts::Registered();
  const bool isAsked = std::any_of(all.begin(), all.end(), [&writes](const auto& registered) {
    return writes.changed.contains(placeOf(registered.keyPath, registered.valueName));
  });
  if (isAsked) HostReporter::get().noteAsking();
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [place, before] : writes.changed) {
      places_.insert(place);
      // What a callback threw before this change is over; what it has thrown for it already is not.
      const auto fault = faults_.find(place);
      if (fault != faults_.end() && fault->second.round < round_) faults_.erase(fault);
    }
    ++round_;
  }
  wanted_.notify_all();
}

void VerdictAsker::noteFault(const std::string& lane, const std::string& what) {
  const std::size_t end = lane.rfind('\\');
  if (end == std::string::npos) return;  // no change callback's
  Fault fault;
  fault.verdict.keyPath = lane.substr(0, end);
  fault.verdict.valueName = lane.substr(end + 1);
  fault.verdict.verdict = LqVerdict::kThrew;
  fault.verdict.sentence = "its change callback ended with an exception: " + what;
  fault.verdict.since = std::time(nullptr);
  {
    const std::lock_guard lock(mutex_);
    fault.round = round_;
    faults_.insert_or_assign(placeOf(fault.verdict.keyPath, fault.verdict.valueName), std::move(fault));
    isFaultNew_ = true;
  }
  wanted_.notify_all();
}

void VerdictAsker::keepAsking(const std::stop_token& stop) {
  std::set<std::string> unanswered;
  while (!stop.stop_requested()) {
    std::set<std::string> places;
    bool isStart = false;
    {
      std::unique_lock lock(mutex_);
      const auto isWanted = [this] { return isStart_ || isFaultNew_ || !places_.empty(); };
      if (unanswered.empty()) {
        wanted_.wait(lock, stop, isWanted);
      } else if (!wanted_.wait_for(lock, stop, kAskAgain, isWanted)) {
        places_ = unanswered;
      }
      if (stop.stop_requested()) return;
      isStart = std::exchange(isStart_, false);
      isFaultNew_ = false;
      places = std::exchange(places_, {});
    }
    try {
      ask(places, isStart, stop);
    } catch (const std::exception& fault) {
      ObEvent().Error("host::VerdictAsker", "The modules could not be asked: %s", fault.what());
    }
    const std::lock_guard lock(mutex_);
    unanswered.clear();
    for (const auto& [place, verdict] : answers_)
      if (verdict.verdict.get() == LqVerdict::kNoAnswer) unanswered.insert(place);
  }
}

void VerdictAsker::ask(const std::set<std::string>& places, bool isStart, const std::stop_token& stop) {
  OBGui::KeyList keys;
  for (const LqVerdicts::Registration& registered : LqVerdicts::Registered()) {
    if (!isStart && !places.contains(placeOf(registered.keyPath, registered.valueName))) continue;
    OBGui::RegistryKeyInfo& key = keys.emplace_back();
    key.keyPath = registered.keyPath;
    key.valueName = registered.valueName;
  }
  const std::vector<CurrentValue> values = currentValues(keys);
  for (std::size_t i = 0; i < keys.size(); ++i) setValue(keys[i], values[i]);
  // At the start nobody has removed what is not there.
  if (isStart) std::erase_if(keys, [](const OBGui::RegistryKeyInfo& key) { return key.deleteFlag == 1; });
  const std::vector<LqVerdicts::Told> told = LqVerdicts::Ask(keys, LqVerdicts::kDefaultLimits, stop);
  if (stop.stop_requested()) return;  // nobody was given the time to answer
  {
    const std::lock_guard lock(mutex_);
    for (const LqVerdicts::Told& one : told) {
      HostReport::Verdict verdict = verdictOf(one);
      HostReport::Verdict& known = answers_[placeOf(one.keyPath, one.valueName)];
      if (!isSame(known, verdict)) known = std::move(verdict);
    }
  }
  report(told.size());
  const auto refused = std::find_if(told.begin(), told.end(), [](const LqVerdicts::Told& one) {
    return one.verdict == LqVerdict::kRefused && hasToBeConfirmed(one.keyPath, one.valueName);
  });
  if (refused != told.end())
    goBack_(refused->module + " refused " + refused->keyPath + " " + refused->valueName + ": " +
            refused->sentence);
}

void VerdictAsker::report(std::size_t asked) {
  HostReport::VerdictList list;
  bool wasTold = false;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [place, fault] : faults_) list.push_back(fault.verdict);
    for (const auto& [place, verdict] : answers_) list.push_back(verdict);
    wasTold = std::exchange(isTold_, !list.empty());
  }
  if (list.empty() && !wasTold && !HostReporter::get().isAsking()) return;
  HostReporter::get().putVerdicts(std::move(list), static_cast<std::int64_t>(asked));
}

}  // namespace host
