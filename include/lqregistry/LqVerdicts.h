// LqVerdicts: asks the modules of the host process whether a changed value works.
//
// A change callback tells a module of a value and gets no answer. Beside it, a module may register a verdict
// for the same pair of key path and value name, spelled as the server's records spell them: a plain function
// that answers whether the value is in effect, needs a restart, or is refused, with a sentence for the people
// who read the host's report. The host asks after a pass, and at its start.
//
// A function is asked after the callbacks of its pair that were queued before the question have run, and on a
// pool of its own: neither the pass nor a callback waits for it, and it may take as long as the host's limit.
// It gets a record that is valid during the call; of a value that was removed, the record says so
// (deleteFlag 1 or enabledFlag 0). Calls for one registration come one after the other; those for different
// pairs may run at once. It may throw, which is a verdict too; register and unregister pairs, its own
// included; and write to the registry. It does not call Ask, which would wait for the function that calls it.
// A sentence must not hold a secret: it goes to logs and to the server.
//
// A function that does not return in time is not asked again until it has returned: it keeps its thread. Of
// these there are kMaxThreads; when as many hang, nobody else gets a turn.
//
// Any thread may register, unregister and ask, at any time. Nothing is thrown. The registrations and what is
// asked live as long as the process; the pool ends with it as LqThreadPool does, so a function that hangs
// holds up the end for no longer than the pool's exit wait. Every Ask has returned by then. A host that
// unloads its modules unregisters them and drains first the change manager's pool, then threadPool().
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "lqregistry/LqExport.h"
#include "lqregistry/LqThreadPool.h"
#include "lqregistry/OBGui.h"

// What a function answers.
class LqVerdict {
 public:
  // The words for it. The last two are told in the place of a function's answer.
  static constexpr const char* kInEffect = "inEffect";
  static constexpr const char* kNeedsRestart = "needsRestart";
  static constexpr const char* kRefused = "refused";
  static constexpr const char* kNoAnswer = "noAnswer";  // not in time, or it could not be asked
  static constexpr const char* kThrew = "threw";

  // The value is used as it stands now.
  static LqVerdict inEffect(std::string sentence = {}) { return {kInEffect, std::move(sentence)}; }
  // It is accepted, and used after the restart that the sentence names.
  static LqVerdict needsRestart(std::string sentence) { return {kNeedsRestart, std::move(sentence)}; }
  // It cannot be used; the sentence says why, and what could.
  static LqVerdict refused(std::string sentence) { return {kRefused, std::move(sentence)}; }

  const char* word() const { return word_; }
  const std::string& sentence() const { return sentence_; }

 private:
  LqVerdict(const char* word, std::string sentence) : word_(word), sentence_(std::move(sentence)) {}
  const char* word_;
  std::string sentence_;
};

class LQ_EXPORT LqVerdicts {
 public:
  using Function = LqVerdict (*)(const OBGui::RegistryKeyInfo& key);

  // Texts of modules are cut here, at the end of a character in UTF-8. Nothing else is done to them: whoever
  // shows one makes it printable.
  static constexpr std::size_t kMaxTextBytes = 512;
  static constexpr std::uint32_t kMaxThreads = 16;

  // What became of one question.
  struct Told {
    std::string module;
    std::string keyPath;
    std::string valueName;
    std::string verdict;  // a word of LqVerdict
    std::string sentence;
    std::int64_t since = 0;  // when it was answered, or when that was asked which is not answered yet; UTC

    bool isGood() const { return verdict == LqVerdict::kInEffect || verdict == LqVerdict::kNeedsRestart; }
  };

  struct Registration {
    std::string module;
    std::string keyPath;
    std::string valueName;
    std::int64_t hangsSince = 0;  // when it was asked what it has not answered in time; 0: it is free
  };

  // How long Ask waits.
  struct Limits {
    std::chrono::milliseconds each;   // for a function that has begun
    std::chrono::milliseconds total;  // for everything, waiting for callbacks and for a thread included
  };
  static constexpr Limits kDefaultLimits{std::chrono::seconds(10), std::chrono::seconds(60)};

  // The last registration of a pair wins, and is asked whether or not the one before hangs. `module` is the
  // name by which people know it. A null function is refused with an error in the log, and changes nothing.
  static void Register(const std::string& module, const std::string& keyPath, const std::string& valueName,
                       Function function);
  // The function is not called any more; a call that has begun goes on.
  static void UnRegister(const std::string& keyPath, const std::string& valueName);
  // All of them, in the order of their pairs.
  static std::vector<Registration> Registered();

  // Asks for each pair among the records that has a function, once, with the last record of the pair, and
  // waits for the answers: until all are there, `limits` are over or `stop` is requested. The answers are in
  // the order of the records; what was unregistered before it was asked is left out. A pair whose callback or
  // function has not ended since an earlier call is not waited for. Not to be called by a callback or a
  // function, nor on the thread of a pass, which should not wait.
  static std::vector<Told> Ask(const OBGui::KeyList& changed, const Limits& limits = kDefaultLimits,
                               const std::stop_token& stop = {});

  // The pool on which functions run, for a host that ends: drain(), setExitWait().
  static LqThreadPool& threadPool();
};
