#include "overhub/store/rollout_proof.h"

#include "overhub/store/confirmations.h"

namespace {

std::string nameOf(const ReportNote& report) {
  return report.epoch + " " + std::to_string(report.sequence);
}

// Whether a report tells of more than the one that was the newest when the stage began, and is not only the
// question before a pass, which repeats what the one before said.
bool isNews(soci::session& session, const RolloutMachine& machine, const ReportNote& report) {
  if (nameOf(report) == machine.reported) return false;
  const auto stored = reportOf(session, machine.client);
  return stored && nameOf(stored->note) == nameOf(report) &&
         stored->report.cause.get() != HostReport::kCauseAsk;
}

}  // namespace

Proof proofOf(soci::session& session, const Rollout& rollout, const RolloutMachine& machine,
              const MachineStatus& now, std::int64_t confirmed) {
  const std::string revision = "revision " + std::to_string(rollout.revision);
  const Contact& contact = now.contact;
  const bool isReported = now.report && now.handed && now.handed->digest == now.report->digest &&
                          now.handed->revision >= rollout.revision;
  const Told told = isReported ? now.report->summary.told : Told::good;
  if (confirmed >= rollout.revision && told != Told::back) return {RolloutResult::inEffect, ""};
  const bool isBad = told == Told::failed || told == Told::refused || told == Told::back;
  if (isBad && contact.handed > machine.handed && isNews(session, machine, *now.report))
    return {RolloutResult::failed, now.report->summary.why};
  if (contact.handed == machine.handed)
    return {RolloutResult::waiting, contact.refusal.empty() ? "has not fetched " + revision
                                                            : "was not handed it: " + contact.refusal};
  if (!now.report) return {RolloutResult::waiting, "makes no reports, or cannot send them"};
  if (!isReported) return {RolloutResult::waiting, "has not reported on " + revision};
  return {RolloutResult::waiting, isBad ? now.report->summary.why : "has not shown yet that it works"};
}

bool hasToGoBack(soci::session& session, const Rollout& rollout, const RolloutMachine& machine,
                 const MachineStatus& now) {
  if (!isTakenBack(session, machine.client, rollout.revision)) return false;
  if (!now.report || now.report->summary.told == Told::back) return !now.report;
  const auto stored = reportOf(session, machine.client);
  // Before its pass it cannot have gone back.
  return !stored || stored->report.cause.get() == HostReport::kCauseAsk ||
         nameOf(stored->note) == machine.reported ||
         shallGoBack(session, machine.client, stored->report.memory);
}
