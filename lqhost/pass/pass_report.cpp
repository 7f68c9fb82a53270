#include "lqhost/pass/pass_report.h"

#include <map>
#include <utility>

#include "common/text_table.h"
#include "lqhost/pass/batch_outcome.h"

namespace host {

BatchReport reportOf(PassDetails details) {
  const std::size_t records = details.batch.size();
  const std::vector<RecordOutcome> outcomes = judgeBatch(std::move(details));
  programs::TextTable table({"OUTCOME", "KEY", "VALUE", "NOW", "NOTE"});
  std::map<RecordFate, std::size_t> totals;
  for (const RecordOutcome& outcome : outcomes) {
    table.addRow({fateWord(outcome.fate), outcome.keyPath, outcome.valueName, outcome.value, outcome.note});
    ++totals[outcome.fate];
  }
  const auto total = [&totals](RecordFate fate, const char* label) {
    return std::to_string(totals[fate]) + " " + label;
  };
  return {(outcomes.empty() ? "There are no records.\n" : table.text()) + "\n" + std::to_string(records) +
              " records: " + total(RecordFate::kAdded, "added, ") + total(RecordFate::kChanged, "changed, ") +
              total(RecordFate::kRemoved, "removed, ") + total(RecordFate::kReset, "reset, ") +
              total(RecordFate::kLeft, "left as they were, ") + total(RecordFate::kFailed, "failed\n"),
          totals[RecordFate::kFailed]};
}

}  // namespace host
