#include "lqhost/pass/pass_report.h"

#include <cstdio>
#include <map>

#include "common/text_table.h"
#include "lqhost/pass/batch_outcome.h"

namespace host {

std::size_t reportBatch(const PassFacts& facts) {
  const std::vector<RecordOutcome> outcomes = judgeBatch(facts);
  programs::TextTable table({"OUTCOME", "KEY", "VALUE", "NOW", "NOTE"});
  std::map<Outcome, std::size_t> totals;
  for (const RecordOutcome& outcome : outcomes) {
    table.addRow(
        {outcomeWord(outcome.outcome), outcome.keyPath, outcome.valueName, outcome.value, outcome.note});
    ++totals[outcome.outcome];
  }
  std::printf("%s\n", outcomes.empty() ? "There are no records.\n" : table.text().c_str());
  std::printf(
      "%zu records: %zu added, %zu changed, %zu removed, %zu reset, %zu left as they were, %zu failed\n",
      facts.batch.size(), totals[Outcome::kAdded], totals[Outcome::kChanged], totals[Outcome::kRemoved],
      totals[Outcome::kReset], totals[Outcome::kLeft], totals[Outcome::kFailed]);
  return totals[Outcome::kFailed];
}

}  // namespace host
