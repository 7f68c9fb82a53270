// Asking modules whether a changed value works: a question waits in the lane of its pair's callbacks, then
// for a thread, then for the module, and whoever asks gives it up when it has waited for too long.
//
// One mutex guards registrations and questions. They are never destroyed, and a question belongs to everybody
// who may still look at it, because a function that hangs outlives the call that asked it, and maybe `main`.
// The pool is touched by the asking thread alone: an item of the change pool that runs at the very end of the
// process finds no pool that has ended before it.
#include "lqregistry/LqVerdicts.h"

#include <algorithm>
#include <condition_variable>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/UtcText.h"

namespace {

using Clock = std::chrono::steady_clock;
using Pair = std::pair<std::string, std::string>;
using Told = LqVerdicts::Told;

// The pool: its name; a thread ends after 60 idle seconds, since passes are far between; one function that
// waits lets another thread join.
constexpr const char* kPoolName = "LqVerdicts";
constexpr std::uint64_t kIdleSeconds = 60;
constexpr std::uint64_t kItemsPerThread = 1;

enum class Hang { kNothing, kCallback, kFunction };

struct Registrant {
  std::string module;
  LqVerdicts::Function function;
  std::string lane;  // in the pool; not the pair's, so that a new registration does not wait for an old one
  bool isWithdrawn = false;
  Hang hang = Hang::kNothing;   // what was given up, and has not ended since
  std::int64_t hangsSince = 0;  // when it was asked
};

enum class Stage { kBehindCallback, kMayBeAsked, kQueued, kRuns, kEnded };

struct Question {
  OBGui::RegistryKeyInfo key;
  std::shared_ptr<Registrant> registration;
  Stage stage = Stage::kBehindCallback;
  Clock::time_point begun;  // when the function was called
  std::int64_t asked = 0;   // the same for people; before that, when the question was put
  Told told;                // once it has ended
};
using Questions = std::vector<std::shared_ptr<Question>>;

struct State {
  std::mutex mutex;
  std::condition_variable changed;  // the stage of some question
  std::map<Pair, std::shared_ptr<Registrant>> registrations;
  std::uint64_t lanes = 0;
};

State& state() {
  static auto* const theState = new State;
  return *theState;
}

std::int64_t timeNow() {
  return std::time(nullptr);
}

std::string bounded(std::string text) {
  if (text.size() <= LqVerdicts::kMaxTextBytes) return text;
  constexpr std::size_t kLongestTail = 3;  // bytes after the first of a character
  std::size_t end = LqVerdicts::kMaxTextBytes;
  const auto isInsideCharacter = [&text](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
  };
  while (end > LqVerdicts::kMaxTextBytes - kLongestTail && isInsideCharacter(end)) --end;
  text.resize(end);
  return text;
}

// As the change manager names it.
std::string callbackLane(const OBGui::RegistryKeyInfo& key) {
  return key.keyPath.get() + "\\" + key.valueName.get();
}

// --- with the mutex held -----------------------------------------------------------------------------------

void end(Question& question, const char* verdict, std::string sentence, std::int64_t since) {
  question.stage = Stage::kEnded;
  question.told = {question.registration->module, question.key.keyPath,
                   question.key.valueName,        verdict,
                   bounded(std::move(sentence)),  since};
}

void endAsHanging(Question& question) {
  const Registrant& registration = *question.registration;
  const std::string since = lqtext::utcText(registration.hangsSince);
  end(question, LqVerdict::kNoAnswer,
      registration.hang == Hang::kCallback
          ? "it was not asked: its change callback has not ended since " + since
          : "it has not answered since " + since + ", and is not asked again before it does",
      registration.hangsSince);
}

// It had `patience`, and did not end.
void giveUp(Question& question, const std::string& patience) {
  Registrant& registration = *question.registration;
  std::string sentence = "it was not asked: its turn did not come " + patience;
  Hang hang = Hang::kNothing;
  if (question.stage == Stage::kRuns) {
    hang = Hang::kFunction;
    sentence = "it did not answer " + patience;
  } else if (question.stage == Stage::kBehindCallback && registration.hang == Hang::kNothing &&
             LqRegistryChangeMgr::callBackThreadPool.isRunning(callbackLane(question.key))) {
    hang = Hang::kCallback;
    sentence = "it was not asked: its change callback did not end " + patience;
  }
  if (hang != Hang::kNothing) {
    registration.hang = hang;
    registration.hangsSince = question.asked;
    state().changed.notify_all();  // somebody else who asks at the same time need not wait for it
  }
  end(question, LqVerdict::kNoAnswer, std::move(sentence), question.asked);
}

// Whether a question whose function has not been called needs no call: it was given up, or nobody is
// registered any more.
bool isMoot(Question& question) {
  if (question.registration->isWithdrawn) question.stage = Stage::kEnded;
  return question.stage == Stage::kEnded;
}

// --- items of the pools ------------------------------------------------------------------------------------

// An item's argument: a share in its question.
using Parcel = std::shared_ptr<Question>;

// False when the pool does not take it.
bool queue(LqThreadPool& pool, LqThreadPool::Routine routine, const Parcel& question,
           const std::string& lane) {
  auto parcel = std::make_unique<Parcel>(question);
  if (pool.doWork(routine, parcel.get(), lane) != 0) return false;
  static_cast<void>(parcel.release());  // the worker's from here on
  return true;
}

// In the lane of the pair's callbacks: those before it have run.
void* passFence(void* argument) {
  const std::unique_ptr<Parcel> parcel(static_cast<Parcel*>(argument));
  Question& question = **parcel;
  const std::lock_guard lock(state().mutex);
  if (question.registration->hang == Hang::kCallback) question.registration->hang = Hang::kNothing;
  if (question.stage == Stage::kBehindCallback) question.stage = Stage::kMayBeAsked;
  state().changed.notify_all();
  return nullptr;
}

// Without the mutex: it is somebody else's code.
std::pair<const char*, std::string> answerTo(const Question& question) {
  try {
    const LqVerdict verdict = question.registration->function(question.key);
    return {verdict.word(), verdict.sentence()};
  } catch (const std::exception& fault) {
    return {LqVerdict::kThrew, fault.what()};
  } catch (...) {
    return {LqVerdict::kThrew, LqThreadPool::kNamelessFault};
  }
}

void* callFunction(void* argument) {
  const std::unique_ptr<Parcel> parcel(static_cast<Parcel*>(argument));
  Question& question = **parcel;
  std::unique_lock lock(state().mutex);
  if (isMoot(question)) return nullptr;
  question.stage = Stage::kRuns;
  question.begun = Clock::now();
  question.asked = timeNow();
  state().changed.notify_all();
  lock.unlock();
  auto [word, sentence] = answerTo(question);
  lock.lock();
  question.registration->hang = Hang::kNothing;
  if (question.stage == Stage::kRuns) end(question, word, std::move(sentence), timeNow());
  state().changed.notify_all();
  return nullptr;
}

// --- one Ask -----------------------------------------------------------------------------------------------

Questions questionsOf(const OBGui::KeyList& changed) {
  Questions questions;
  std::map<Pair, std::size_t> known;
  const std::lock_guard lock(state().mutex);
  if (state().registrations.empty()) return questions;
  for (const OBGui::RegistryKeyInfo& key : changed) {
    const Pair pair{key.keyPath, key.valueName};
    const auto found = state().registrations.find(pair);
    if (found == state().registrations.end()) continue;
    const auto [place, isNew] = known.try_emplace(pair, questions.size());
    if (isNew) questions.push_back(std::make_shared<Question>());
    Question& question = *questions[place->second];
    question.key = key;
    question.registration = found->second;
    question.asked = timeNow();
  }
  return questions;
}

// Puts each question into the lane of its pair. A pool that takes nothing has taken no callback either.
void putBehindCallbacks(const Questions& questions) {
  LqRegistryChangeMgr::GetInstance();  // starts the pool on first use
  for (const Parcel& question : questions) {
    {
      const std::lock_guard lock(state().mutex);
      if (question->registration->hang != Hang::kNothing) {
        endAsHanging(*question);
        continue;
      }
    }
    if (queue(LqRegistryChangeMgr::callBackThreadPool, &passFence, question, callbackLane(question->key)))
      continue;
    const std::lock_guard lock(state().mutex);
    question->stage = Stage::kMayBeAsked;
  }
}

std::string inPlainUnits(std::chrono::milliseconds time) {
  constexpr int kPerSecond = 1000;
  const auto count = time.count();
  return count % kPerSecond == 0 ? std::to_string(count / kPerSecond) + " s" : std::to_string(count) + " ms";
}

// One call of Ask, by its thread, with the mutex held.
class Round {
 public:
  Round(const Questions& questions, const LqVerdicts::Limits& limits, Clock::time_point end)
      : questions_(questions), limits_(limits), end_(end) {}

  // Takes each question as far as it gets; until when to wait for a change, nothing when all have ended.
  std::optional<Clock::time_point> advance(bool isStopping) {
    std::optional<Clock::time_point> next;
    const Clock::time_point now = Clock::now();
    for (const Parcel& question : questions_) {
      if (question->stage == Stage::kMayBeAsked) askSoon(question);
      if (question->stage == Stage::kQueued && question->registration->hang == Hang::kFunction)
        endAsHanging(*question);
      if (question->stage != Stage::kRuns && isMoot(*question)) continue;
      const bool isCutShort = question->stage != Stage::kRuns || end_ < question->begun + limits_.each;
      const Clock::time_point until = isCutShort ? end_ : question->begun + limits_.each;
      if (isStopping) {
        giveUp(*question, "before the host stopped");
      } else if (until <= now) {
        giveUp(*question, isCutShort ? "within the " + inPlainUnits(limits_.total) + " for all"
                                     : "within " + inPlainUnits(limits_.each));
      } else {
        next = std::min(next.value_or(until), until);
      }
    }
    return next;
  }

 private:
  static void askSoon(const Parcel& question) {
    if (isMoot(*question)) return;
    if (queue(LqVerdicts::threadPool(), &callFunction, question, question->registration->lane))
      question->stage = Stage::kQueued;
    else
      end(*question, LqVerdict::kNoAnswer, "it was not asked: there is no thread for it", question->asked);
  }

  const Questions& questions_;
  const LqVerdicts::Limits limits_;
  const Clock::time_point end_;
};

void log(const Told& told) {
  constexpr const char* kTag = "LqVerdicts::Ask";
  constexpr const char* kFormat = "[%s] on [%s\\%s]: %s: %s";
  const ObEvent event;
  const char* const module = told.module.c_str();
  const char* const path = told.keyPath.c_str();
  const char* const name = told.valueName.c_str();
  if (told.isGood()) {
    event.DebugLvl(kLogDetail, kTag, kFormat, module, path, name, told.verdict.c_str(),
                   told.sentence.c_str());
  } else {
    event.Error(kTag, kFormat, module, path, name, told.verdict.c_str(), told.sentence.c_str());
  }
}

void withdraw(const std::shared_ptr<Registrant>& registration) {
  if (registration == nullptr) return;
  registration->isWithdrawn = true;
  state().changed.notify_all();
}

}  // namespace

void LqVerdicts::Register(const std::string& module, const std::string& keyPath, const std::string& valueName,
                          Function function) {
  if (function == nullptr) {
    ObEvent().Error("LqVerdicts::Register", "[%s] registers no function for key [%s\\%s]", module.c_str(),
                    keyPath.c_str(), valueName.c_str());
    return;
  }
  auto registration = std::make_shared<Registrant>();
  registration->module = bounded(module);
  registration->function = function;
  const std::lock_guard lock(state().mutex);
  registration->lane = std::to_string(++state().lanes) + ": " + keyPath + "\\" + valueName;
  state().registrations[{keyPath, valueName}].swap(registration);
  withdraw(registration);
}

void LqVerdicts::UnRegister(const std::string& keyPath, const std::string& valueName) {
  const std::lock_guard lock(state().mutex);
  const auto found = state().registrations.find({keyPath, valueName});
  if (found == state().registrations.end()) return;
  withdraw(found->second);
  state().registrations.erase(found);
}

std::vector<LqVerdicts::Registration> LqVerdicts::Registered() {
  std::vector<Registration> all;
  const std::lock_guard lock(state().mutex);
  for (const auto& [pair, one] : state().registrations)
    all.push_back({one->module, pair.first, pair.second, one->hang == Hang::kNothing ? 0 : one->hangsSince});
  return all;
}

std::vector<LqVerdicts::Told> LqVerdicts::Ask(const OBGui::KeyList& changed, const Limits& limits,
                                              const std::stop_token& stop) {
  const Questions questions = questionsOf(changed);
  if (questions.empty()) return {};
  Round round(questions, limits, Clock::now() + limits.total);
  putBehindCallbacks(questions);
  std::vector<Told> all;
  {
    const std::stop_callback wake(stop, [] {
      const std::lock_guard lock(state().mutex);
      state().changed.notify_all();
    });
    std::unique_lock lock(state().mutex);
    while (const auto next = round.advance(stop.stop_requested())) state().changed.wait_until(lock, *next);
    for (const Parcel& question : questions)
      if (!question->told.verdict.empty()) all.push_back(question->told);
  }
  for (const Told& told : all) log(told);
  return all;
}

LqThreadPool& LqVerdicts::threadPool() {
  static LqThreadPool pool;
  // It needs no thread at first, so nothing is in the way of its start.
  [[maybe_unused]] static const bool isStarted =
      pool.initThreadPool(kPoolName, kIdleSeconds, kItemsPerThread, kMaxThreads, 0);
  return pool;
}
