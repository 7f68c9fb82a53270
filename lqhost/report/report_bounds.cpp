#include "lqhost/report/report_bounds.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

// What a report has besides its lists: a dozen numbers, and texts of which each may be as long as it can be
// and consist of bytes that take four characters.
constexpr std::size_t kHeadBytes = std::size_t{16} * 1024;
constexpr unsigned char kContinuation =
    0x80;  // in UTF-8, what a character goes on with, in the upper two bits
constexpr unsigned char kContinuationMask = 0xC0;

template <class Text>
void cut(Text& field) {
  if (field->size() > HostReport::kMaxTextBytes) field = boundedText(field);
}

void cutTexts(HostReport::Problem& problem) {
  cut(problem.kind);
  cut(problem.reason);
}
void cutTexts(HostReport::Verdict& verdict) {
  cut(verdict.module);
  cut(verdict.verdict);
  cut(verdict.sentence);
}
void cutTexts(HostReport::Drift& drift) {
  cut(drift.before);
  cut(drift.after);
}

// Takes what fits out of the list; how many entries do not.
template <class Entry>
std::int64_t take(const std::vector<Entry>& from, std::vector<Entry>& into, std::size_t& room) {
  for (const Entry& entry : from) {
    if (into.size() == HostReport::kMaxEntries) break;
    Entry shortened = entry;
    cutTexts(shortened);
    std::string text;
    if (shortened.serialize(text, false) != 0 || text.size() > room) continue;
    room -= text.size();
    into.push_back(std::move(shortened));
  }
  return static_cast<std::int64_t>(from.size() - into.size());
}

}  // namespace

std::string boundedText(const std::string& text) {
  std::size_t size = std::min(text.size(), HostReport::kMaxTextBytes);
  while (size < text.size() && size > 0 &&
         (static_cast<unsigned char>(text[size]) & kContinuationMask) == kContinuation)
    --size;
  return text.substr(0, size);
}

HostReport::Report bounded(const HostReport::Report& whole) {
  HostReport::Report report = whole;
  report.problems.clear();
  report.verdicts.clear();
  report.drifts.clear();
  cut(report.outcomeText);
  if (report.memory.isSet()) cut(report.memory.edit().reason);
  std::size_t room = HostReport::kMaxReportBytes - kHeadBytes;
  report.problemsOmitted = whole.problemsOmitted + take(whole.problems.get(), report.problems.edit(), room);
  report.verdictsOmitted = whole.verdictsOmitted + take(whole.verdicts.get(), report.verdicts.edit(), room);
  report.driftsOmitted = whole.driftsOmitted + take(whole.drifts.get(), report.drifts.edit(), room);
  return report;
}

}  // namespace host
