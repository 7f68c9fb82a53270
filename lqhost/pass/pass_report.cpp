#include "lqhost/pass/pass_report.h"

#include <map>

#include "common/text_table.h"
#include "lqhost/pass/batch_outcome.h"

namespace host {

BatchReport reportOf(const PassDetails& details) {
  const std::vector<RecordOutcome> outcomes = judgeBatch(details);
  programs::TextTable table({"OUTCOME", "KEY", "VALUE", "NOW", "NOTE"});
  std::map<Outcome, std::size_t> totals;
  for (const RecordOutcome& outcome : outcomes) {
    table.addRow(
        {outcomeWord(outcome.outcome), outcome.keyPath, outcome.valueName, outcome.value, outcome.note});
    ++totals[outcome.outcome];
  }
  const auto total = [&totals](Outcome outcome, const char* label) {
    return std::to_string(totals[outcome]) + " " + label;
  };
  return {(outcomes.empty() ? "There are no records.\n" : table.text()) + "\n" +
              std::to_string(details.batch.size()) + " records: " + total(Outcome::kAdded, "added, ") +
              total(Outcome::kChanged, "changed, ") + total(Outcome::kRemoved, "removed, ") +
              total(Outcome::kReset, "reset, ") + total(Outcome::kLeft, "left as they were, ") +
              total(Outcome::kFailed, "failed\n"),
          totals[Outcome::kFailed]};
}

}  // namespace host
