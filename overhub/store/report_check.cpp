#include "overhub/store/report_check.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/PrintableText.h"
#include "records/secret_values.h"

namespace {

// The last second of the year 9999: more is neither a time nor a count.
constexpr std::int64_t kMostNumber = 253'402'300'799;
constexpr std::size_t kMaxWordBytes = 128;  // of an epoch or a digest
constexpr const char* kReplacement = "\xef\xbf\xbd";

constexpr const char* kToldWords[] = {"good", "restart", "refused", "failed", "back"};

CWmError refused(const std::string& why) {
  return {kLqErrRequestRefused, "the report is not taken: " + why};
}

std::size_t boundOf(std::string_view field) {
  const bool isPlace = field == "keyPath" || field == "valueName";
  return isPlace ? std::size_t{lqregistry::kMaxPathBytes} : HostReport::kMaxTextBytes;
}

CWmError checkField(const CNMessageBase& message, const FieldInfo& field);

CWmError checkFields(const CNMessageBase& message) {
  for (const FieldInfo& field : message.fieldList())
    if (CWmError error = checkField(message, field); error.IsError()) return error;
  return {};
}

CWmError checkField(const CNMessageBase& message, const FieldInfo& field) {
  const std::string name = field.name;
  switch (field.kind) {
    case FieldInfo::Kind::kText:
      if (static_cast<const std::string*>(field.read(message))->size() <= boundOf(name)) return {};
      return refused("its " + name + " has more than " + std::to_string(boundOf(name)) + " bytes");
    case FieldInfo::Kind::kNumber: {
      const std::int64_t number = *static_cast<const std::int64_t*>(field.read(message));
      if (number >= 0 && number <= kMostNumber) return {};
      return refused("its " + name + " is " + std::to_string(number));
    }
    case FieldInfo::Kind::kRecord:
      return checkFields(*static_cast<const CNMessageBase*>(field.read(message)));
    case FieldInfo::Kind::kList:
      if (field.count(message) > HostReport::kMaxEntries)
        return refused("it has more than " + std::to_string(HostReport::kMaxEntries) + " " + name);
      for (std::size_t i = 0; i < field.count(message); ++i)
        if (CWmError error = checkFields(field.at(message, i)); error.IsError()) return error;
      return {};
    case FieldInfo::Kind::kProtected:
      break;  // a report has none
  }
  return {};
}

bool isWord(const std::string& text) {
  return text.size() <= kMaxWordBytes && std::all_of(text.begin(), text.end(), [](char byte) {
           return std::isalnum(static_cast<unsigned char>(byte)) != 0;
         });
}

// Takes what is worse than all before it, or as bad and older.
void take(ReportSummary& summary, Told told, std::string why, std::int64_t since) {
  const bool isOlder = told == summary.told && since != 0 && since < summary.since;
  if (told > summary.told) summary.why = std::move(why);
  if (told > summary.told || isOlder) summary.since = since;
  summary.told = std::max(summary.told, told);
}

}  // namespace

CWmError checkReport(const HostReport::Report& report, std::string& text) {
  if (report.version < 1 || report.version > HostReport::kVersion)
    return refused("it is of version " + std::to_string(report.version) + ", and this server knows " +
                   std::to_string(HostReport::kVersion));
  CWmError error = checkFields(report);
  if (error.IsError()) return error;
  if (report.epoch->empty() || !isWord(report.epoch)) return refused("its epoch is no word");
  for (const std::string& digest : {report.digest.get(), report.originsOf.get(), report.memory->digest.get()})
    if (!isWord(digest)) return refused("a digest in it is no word");
  if (report.serialize(text, false) == 0 && text.size() <= HostReport::kMaxReportBytes) return {};
  return refused("it has more than " + std::to_string(HostReport::kMaxReportBytes) + " bytes");
}

void hideSecrets(HostReport::Report& report) {
  if (!report.drifts.isSet()) return;
  for (HostReport::Drift& drift : report.drifts.edit()) {
    const std::string& name = drift.valueName;
    if (drift.isSecret == 0 && !isSecretValue(name, drift.before.get()) &&
        !isSecretValue(name, drift.after.get()))
      continue;
    drift.isSecret = 1;
    drift.before.clear();
    drift.after.clear();
  }
}

ReportSummary summaryOf(const HostReport::Report& report, std::int64_t received) {
  ReportSummary summary;
  for (const HostReport::Verdict& verdict : report.verdicts.get()) {
    const std::int64_t since = onOurClock(verdict.since, report, received);
    if (!isInEffect(verdict))
      take(summary, needsRestart(verdict) ? Told::restart : Told::refused, verdictText(verdict), since);
  }
  for (const HostReport::Problem& problem : report.problems.get())
    take(summary, Told::failed, placeText(problem.keyPath, problem.valueName) + ": " + problem.reason.get(),
         onOurClock(problem.since, report, received));
  const auto problems = static_cast<std::int64_t>(report.problems->size()) + report.problemsOmitted.get();
  if (problems != 0) take(summary, Told::failed, "it has problems", 0);
  if (problems > 1) summary.why += ", and " + std::to_string(problems - 1) + " more";
  const HostReport::Memory& memory = report.memory;
  if (memory.state.get() == "goneBack" || memory.state.get() == "goingBack")
    take(summary, Told::back, "it went back: " + memory.reason.get(),
         onOurClock(memory.since, report, received));
  summary.why = asPlainText(summary.why);
  return summary;
}

bool provesBatch(const HostReport::Report& report, std::int64_t handed, std::int64_t received) {
  const std::string& outcome = report.outcome;
  const std::string& state = report.memory->state;
  // "partly" and "unacknowledged" may stand for problems of before, which the list tells apart.
  const bool isApplied = outcome == "applied" || outcome == "partly" || outcome == "unacknowledged";
  if (!isApplied || state == "goneBack" || state == "goingBack" || report.cache.get() != "stored")
    return false;
  if (report.isAsking == 1 || report.problemsOmitted != 0 || report.verdictsOmitted != 0) return false;
  const auto isOld = [&](std::int64_t since) {
    return since != 0 && onOurClock(since, report, received) < handed;
  };
  return std::all_of(report.problems->begin(), report.problems->end(),
                     [&](const auto& problem) { return isOld(problem.since); }) &&
         std::all_of(report.verdicts->begin(), report.verdicts->end(), [&](const auto& verdict) {
           return isInEffect(verdict) || needsRestart(verdict) || isOld(verdict.since);
         });
}

const char* toldWord(Told told) {
  return kToldWords[static_cast<std::size_t>(told)];
}

Told toldOf(const std::string& word) {
  const auto* const found = std::find(std::begin(kToldWords), std::end(kToldWords), word);
  return found == std::end(kToldWords) ? Told::good : static_cast<Told>(found - std::begin(kToldWords));
}

std::int64_t onOurClock(std::int64_t time, const HostReport::Report& report, std::int64_t received) {
  if (time == 0) return 0;
  return std::clamp<std::int64_t>(time + (received - report.time.get()), 1, received);
}

std::string asPlainText(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    const std::size_t length = lqtext::printableLength(text);
    const std::string_view next = length == 0 ? kReplacement : text.substr(0, length);
    if (plain.size() + next.size() > HostReport::kMaxTextBytes) break;
    plain += next;
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return plain;
}

std::string placeText(const std::string& path, const std::string& name) {
  if (path.empty() && name.empty()) return "the machine";
  return path.empty() || name.empty() ? path + name : path + " " + name;
}

bool isInEffect(const HostReport::Verdict& verdict) {
  return verdict.verdict.get() == "inEffect";
}

bool needsRestart(const HostReport::Verdict& verdict) {
  return verdict.verdict.get() == "needsRestart";
}

std::string verdictText(const HostReport::Verdict& verdict) {
  const std::string& word = verdict.verdict;
  const char* says = " refused ";
  if (isInEffect(verdict)) says = " works with ";
  if (needsRestart(verdict)) says = " needs a restart for ";
  if (word == "noAnswer") says = " did not say in time whether it works with ";
  if (word == "threw") says = " failed with an exception when it was told of ";
  const std::string& sentence = verdict.sentence;
  // The change callback of a pair does not say whose it is.
  const std::string who = verdict.module->empty() ? "a module" : verdict.module.get();
  return who + says + placeText(verdict.keyPath, verdict.valueName) +
         (sentence.empty() ? "" : ": " + sentence);
}
