#include "overhub/commands/findings.h"

#include <algorithm>
#include <utility>

#include "common/age_text.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/UtcText.h"
#include "overhub/commands/drift_list.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/confirmations.h"

namespace {

// What a clock may be off before anybody has to hear of it.
constexpr std::int64_t kClockSeconds = 300;

struct WayOut {
  const char* kind;
  const char* sentence;
};

// By the words of docs/wire.md for problems, and those for what the server finds out by itself.
constexpr WayOut kWaysOut[] = {
    {"forbidden", "clients create no sub-key but \"Local\"; unset this one, and set a value in it instead"},
    {"noName", "unset it; a value has a name"},
    {"badName", "unset it, and set it under a name and a path that the registry takes"},
    {"tooLong", "set something shorter"},
    {"readOnly", "make the registry file and its directory writable for the user that the host runs as"},
    {"diskFull", "free space on the machine's disk; the next pass brings the record again"},
    {"locked", "let whatever holds the machine's registry end"},
    {"damaged", "restore the machine's registry from a backup, or move it away and join anew"},
    {"registry", "make the machine's registry usable, as the reason says"},
    {"protection",
     "put the protection key back from the machine's backup; without one, join the machine anew"},
    {"overridden", "find out who sets it on the machine and why; unset it here if that is right"},
    {"cacheLost", "free the machine's disk, or make its base directory writable"},
    {"cacheKept", R"("overhub resend MACHINE", or "lqhost sync --fresh" on the machine)"},
    {"cacheUnreadable", "run \"lqhost sync --fresh\" on the machine"},
    {"never", R"(start the host there, with the join file: "lqhost join FILE", then "lqhost run")"},
    {"silent", "see that the machine runs, \"lqhost run\" on it, and that it reaches the server"},
    {"notHandedOut", "mend what is set, as the reason says"},
    {"notApplied", "\"lqhost status\" on the machine, and its log, say which records and why"},
    {"pending", "nothing; its next pass settles it, and \"overhub push MACHINE\" does at once"},
    {"heldBack",
     R"("overhub push --resume PUSH" goes on with the push, "overhub push --end PUSH" lets all have it)"},
    {"twoMachines",
     "find the copy, and give it a name of its own with \"overhub add-client\" and a new join file"},
    {"clock", "set the machine's clock; values end by it"},
    {"wentBack",
     "set something that works in its place; where the machine was at fault and is mended, \"overhub confirm "
     "MACHINE\", or \"lqhost rollback --forget\" on it, lets it apply the same again"},
    {"refused", "set something that the module takes, or update the module"},
    {"needsRestart", "restart the module, or the machine"},
    {"noAnswer",
     "see whether the module hangs, and restart the host if so; it is not asked again before it answers"},
    {"threw", "see the module's log, and mend the module or set something that it takes"},
    {"drift", "find out who sets it on the machine and why; unset it here if that is right"},
    {"omitted", "mend what is listed; the next report has room for the others"},
};

void replaceAll(std::string& text, const std::string& mark, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += by.size())
    text.replace(at, mark.size(), by);
}

std::string wayOutOf(const std::string& kind, const MachineStatus& machine) {
  const auto* const found = std::find_if(std::begin(kWaysOut), std::end(kWaysOut),
                                         [&kind](const WayOut& way) { return kind == way.kind; });
  if (found == std::end(kWaysOut)) return "\"lqhost status\" on the machine, and its log, tell more";
  std::string sentence = found->sentence;
  replaceAll(sentence, "MACHINE", machine.client.name);
  if (machine.hold) replaceAll(sentence, "PUSH", std::to_string(machine.hold->rollout));
  return sentence;
}

// Gathers the findings of one machine.
class Findings {
 public:
  Findings(const MachineStatus& machine, std::int64_t now) : machine_(machine), now_(now) {}

  Finding& wrong(std::string kind, std::string why, std::int64_t since = 0) {
    Finding& finding = add(std::move(kind), std::move(why), since);
    finding.isWrong = true;
    finding.wayOut = wayOutOf(finding.kind, machine_);
    return finding;
  }
  Finding& add(std::string kind, std::string why, std::int64_t since = 0) {
    Finding& finding = list_.emplace_back();
    finding.machine = machine_.client.name;
    finding.kind = std::move(kind);
    finding.why = std::move(why);
    finding.since = since;
    return finding;
  }

  void addContact();
  void addReport(const StoredReport& stored);
  void addProblems(const StoredReport& stored);
  void addVerdicts(const StoredReport& stored);
  void addMemory(const StoredReport& stored);
  void addClock(const ReportNote& note);
  void addDemand(const Demand& demand);
  void addHandOut();

  std::vector<Finding> take() {
    std::stable_partition(list_.begin(), list_.end(), [](const Finding& each) { return each.isWrong; });
    return std::move(list_);
  }

 private:
  std::int64_t ours(std::int64_t time, const StoredReport& stored) const {
    return onOurClock(time, stored.report, stored.note.received);
  }

  const MachineStatus& machine_;
  std::int64_t now_;
  std::vector<Finding> list_;
};

// What the store knows by itself.
void Findings::addContact() {
  const Contact& contact = machine_.contact;
  if (machine_.state == FleetState::never || machine_.state == FleetState::silent)
    wrong(stateName(machine_.state), machine_.why, machine_.since);
  if (!contact.refusal.empty()) wrong("notHandedOut", contact.refusal, contact.refusedSince);
  if (machine_.state == FleetState::pending)
    wrong(machine_.isHeldBack() ? "heldBack" : "pending", machine_.why, machine_.since);
  if (contact.outcome != 0)
    add("acknowledged",
        "acknowledged " + programs::ageText(contact.outcomeTime, now_) + ": " + outcomeText(contact.outcome));
}

void Findings::addReport(const StoredReport& stored) {
  const HostReport::Report& report = stored.report;
  std::string why =
      "reported " + programs::ageText(stored.note.received, now_) + " (" + report.cause.get() + ")";
  if (!report.outcome->empty()) why += "; last pass: " + report.outcome.get();
  if (!report.outcomeText->empty()) why += ", " + report.outcomeText.get();
  if (!report.hostVersion->empty()) why += "; host " + report.hostVersion.get();
  add("report", why, stored.note.received);
  if (!report.cache->empty()) add("cache", "settings cache: " + report.cache.get());
  const std::int64_t next = report.nextSync;
  if (next != 0) {
    const std::int64_t in = next - report.time + stored.note.received - now_;
    add("schedule", in < 0 ? "its next pass was due " + programs::durationText(-in) + " ago"
                           : "its next pass is due in " + programs::durationText(in));
  }
}

void Findings::addProblems(const StoredReport& stored) {
  for (const HostReport::Problem& problem : stored.report.problems.get()) {
    Finding& finding = wrong(problem.kind, problem.reason, ours(problem.since, stored));
    finding.path = problem.keyPath;
    finding.name = problem.valueName;
  }
  if (stored.report.problemsOmitted != 0)
    wrong("omitted",
          std::to_string(stored.report.problemsOmitted) + " more problems, for which its report had no room");
}

void Findings::addVerdicts(const StoredReport& stored) {
  std::int64_t good = 0;
  for (const HostReport::Verdict& verdict : stored.report.verdicts.get()) {
    if (isInEffect(verdict)) {
      ++good;
      continue;
    }
    Finding& finding = wrong(verdict.verdict, verdictText(verdict), ours(verdict.since, stored));
    finding.module = verdict.module;
    finding.namesPlace = true;
    finding.path = verdict.keyPath;
    finding.name = verdict.valueName;
  }
  if (stored.report.asked != 0 || good != 0)
    add("verdicts", std::to_string(stored.report.asked) + " modules were asked, " + std::to_string(good) +
                        " say that it is in effect");
  if (stored.report.verdictsOmitted != 0)
    add("verdicts",
        std::to_string(stored.report.verdictsOmitted) + " more verdicts, for which its report had no room");
}

void Findings::addMemory(const StoredReport& stored) {
  const HostReport::Memory& memory = stored.report.memory;
  const std::string& state = memory.state;
  if (state.empty() || state == "none") return;
  std::string what = " (" + std::to_string(memory.places) + " values";
  if (memory.localChanges != 0)
    what +=
        ", " + std::to_string(memory.localChanges) + " of them changed on the machine meanwhile and left so";
  what += ")";
  const std::string reason = memory.reason->empty() ? "" : ": " + memory.reason.get();
  const std::int64_t since = ours(memory.since, stored);
  if (state == "goneBack" || state == "goingBack") {
    wrong("wentBack", "it went back to what it held before" + what + reason, since);
    return;
  }
  std::string text = "keeps what it held before" + what;
  if (state == "waiting") {
    text = "waits to be confirmed, and keeps what it held before" + what;
    if (memory.deadline != 0)
      text +=
          "; goes back at " + lqtext::utcText(memory.deadline - stored.report.time + stored.note.received);
  }
  add("memory", text + reason, since);
}

void Findings::addDemand(const Demand& demand) {
  if (demand.revision != 0) add("toBeConfirmed", demandText(demand) + ", and is not yet");
}

void Findings::addClock(const ReportNote& note) {
  const std::int64_t ahead = note.time - note.received;
  if (ahead >= -kClockSeconds && ahead <= kClockSeconds) return;
  wrong("clock", "its clock is " + programs::durationText(ahead < 0 ? -ahead : ahead) +
                     (ahead < 0 ? " behind" : " ahead of") + " the server's");
}

void Findings::addHandOut() {
  if (!machine_.handed) return;
  const HandedBatch& newest = *machine_.handed;
  std::string text = "was handed the batch of revision " + std::to_string(newest.revision) + " " +
                     programs::ageText(newest.time, now_);
  if (machine_.report) {
    text += machine_.report->digest == newest.digest ? ", and names it in its report"
            : machine_.report->digest.empty()        ? ", and its report names none"
                                                     : ", and its report names another one";
  }
  add("handOut", text, newest.time);
}

}  // namespace

std::vector<Finding> findingsOf(soci::session& session, const MachineStatus& machine, std::int64_t now,
                                std::int64_t silentSeconds) {
  Findings findings(machine, now);
  findings.addContact();
  const auto stored = reportOf(session, machine.client.id);
  const bool isOutdated = machine.isReportOutdated(silentSeconds);
  if (stored && !isOutdated) {
    if (stored->note.areTwo(now))
      findings.wrong("twoMachines", "two machines answer as " + machine.client.name, stored->note.turned);
    findings.addClock(stored->note);
    findings.addMemory(*stored);
    findings.addProblems(*stored);
    findings.addVerdicts(*stored);
    findings.addReport(*stored);
  } else {
    findings.add("noReport", isOutdated
                                 ? "its last report came " + programs::ageText(stored->note.received, now) +
                                       ", before passes that it has made since; its host makes none any more"
                                 : "it has never reported; its host makes no reports, or cannot send them");
  }
  const bool hasProblems = stored && !isOutdated && stored->note.summary.told == Told::failed;
  const Contact& contact = machine.contact;
  if (!hasProblems && contact.outcome != 0 && contact.outcome != OBGui::kTaskSuccess)
    findings.wrong("notApplied", "its newest acknowledgement says: " + outcomeText(contact.outcome),
                   contact.outcomeSince);
  findings.addDemand(demandOf(session, machine.client));
  findings.addHandOut();
  for (const DriftCount& drift : driftsOf(session, machine.client.id)) {
    if (drift.last <= now - kCorrectedSeconds) continue;
    Finding& finding = findings.add("drift", driftText(drift), drift.last);
    finding.path = drift.path;
    finding.name = drift.name;
    finding.wayOut = wayOutOf(finding.kind, machine);
  }
  return findings.take();
}
