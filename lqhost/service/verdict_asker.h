// The thread of the resident host that asks the modules whether the values work that a pass, a refresh, a
// push or going back has changed, and all of them once at the start; what they answer goes into the host's
// report. So does a change callback that ended with an exception.
//
// What a module refuses and the server wants to have confirmed, the machine goes back from.
//
// A module that has not answered in time is asked again when it is free, without a change.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>

#include "lqhost/pass/registry_writes.h"
#include "records/host_report.h"

namespace host {

class VerdictAsker {
 public:
  // That of this process. It is never destroyed, since a callback that outlasts the stop may still throw.
  static VerdictAsker& get();

  VerdictAsker(const VerdictAsker&) = delete;
  VerdictAsker& operator=(const VerdictAsker&) = delete;

  // Hears of changes and faults from now on, and asks; once the modules have registered.
  //   goBack  does so, for this reason; any thread
  void start(std::function<void(const std::string&)> goBack);
  // Waits for nobody's answer.
  void stop();

 private:
  VerdictAsker() = default;

  struct Fault {
    HostReport::Verdict verdict;
    std::uint64_t round = 0;  // of changes, in which it came
  };

  void noteChanged(const RegistryWrites& writes);
  void noteFault(const std::string& lane, const std::string& what);
  void keepAsking(const std::stop_token& stop);
  void ask(const std::set<std::string>& places, bool isStart, const std::stop_token& stop);
  void report(std::size_t asked);

  std::function<void(const std::string&)> goBack_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable_any wanted_;
  std::set<std::string> places_;  // that have changed and were not asked about
  bool isStart_ = true;           // everything is to be asked about
  bool isFaultNew_ = false;
  std::uint64_t round_ = 0;
  std::map<std::string, Fault> faults_;                 // by place
  std::map<std::string, HostReport::Verdict> answers_;  // by place
  bool isTold_ = false;                                 // the report holds verdicts

  std::jthread thread_;
};

}  // namespace host
