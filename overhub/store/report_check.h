// What a client's report may be, and what it comes to. Nothing in it is trusted: it was written by whoever
// has the machine.
//
// Pure computation, so that it can be looked at without a store.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lqregistry/CWmError.h"
#include "records/host_report.h"

// An error that says why a report is not taken: a version that is not known here, or a bound that it
// exceeds. `text` gets it as it is kept. Afterwards every number in it is a time that a calendar knows, or a
// count, and its epoch and digests are words.
CWmError checkReport(const HostReport::Report& report, std::string& text);

// Takes out what must not be kept, whatever sent it: values that are secret.
void hideSecrets(HostReport::Report& report);

// What a report says of the machine, the worst of all that it says.
enum class Told {
  good,
  restart,  // a module works with a value only after a restart
  refused,  // a module refused one, or did not say
  failed,   // a record is not as it should be
  back,     // the machine has gone back to what it held before
};

struct ReportSummary {
  Told told = Told::good;
  std::string why;         // for people; empty when it is good
  std::int64_t since = 0;  // by the clock that `received` is of; 0: not known
};
ReportSummary summaryOf(const HostReport::Report& report, std::int64_t received);

// Whether a report shows that the batch which it names is in effect: applied, cached, with no problem and no
// verdict against it since `handed`, when the batch was handed out first, and no module still to be asked.
// One that needs a restart will be.
bool provesBatch(const HostReport::Report& report, std::int64_t handed, std::int64_t received);

// The word under which the store keeps it, and back; what it does not know is good.
const char* toldWord(Told told);
Told toldOf(const std::string& word);

// A time of a report by the clock of whoever received it; never after that. 0 stays 0.
std::int64_t onOurClock(std::int64_t time, const HostReport::Report& report, std::int64_t received);

// A text as every database takes it, in UTF-8 without control characters, with the replacement character for
// what is none, cut where it is longer than a report's texts may be.
std::string asPlainText(std::string_view text);

// "~/Limits nMAX", or what stands for the whole machine.
std::string placeText(const std::string& path, const std::string& name);

// Whether a module says so that all is well; a word that is not known here says that it is not.
bool isInEffect(const HostReport::Verdict& verdict);
bool needsRestart(const HostReport::Verdict& verdict);
// "MODULE refused ~/Limits nMAX: SENTENCE".
std::string verdictText(const HostReport::Verdict& verdict);
