// `overhub diff`: what two revisions differ in.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/difference_list.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"

namespace {

constexpr const char* kFooter =
    R"(What came and went in between is not in it. Revision 0 is the empty store.

Examples:
  overhub diff 12
  overhub diff 12 15)";

struct Diff {
  std::int64_t from = 0;
  std::optional<std::int64_t> to;
  bool isJson = false;
};

CWmError compare(soci::session& session, const Diff& wanted, std::int64_t& to,
                 std::vector<DifferenceRow>& rows) {
  const std::int64_t newest = newestRevision(session);
  to = wanted.to.value_or(newest);
  for (const std::int64_t revision : {wanted.from, to}) {
    if (revision >= 0 && revision <= newest) continue;
    return {kLqErrRequestRefused,
            "there is no revision " + std::to_string(revision) + "; the newest is " + std::to_string(newest)};
  }
  rows = rowsOf(differencesBetween(session, wanted.from, to), EverScopeNames(session));
  return {};
}

int diff(const Store& store, const Diff& wanted) {
  std::int64_t to = 0;
  std::vector<DifferenceRow> rows;
  const CWmError error =
      store.database().read([&](soci::session& session) { return compare(session, wanted, to, rows); });
  if (error.IsError()) return storeFailed(error);
  if (wanted.isJson) {
    print(jsonOf(wanted.from, to, rows));
    return kExitOk;
  }
  std::string text;
  for (const DifferenceRow& row : rows) text += lineOf(row) + "\n";
  print(text);
  return kExitOk;
}

}  // namespace

void addDiff(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Diff>();
  auto options = line.add("diff", "Print what two revisions differ in; secrets hidden",
                          onStore(place, [wanted](const Store& store) { return diff(store, *wanted); }));
  options.required("FROM", wanted->from, "The revision before")
      .option("TO", wanted->to, 0, "The one after; otherwise the newest")
      .flag("--json", wanted->isJson, "Print it as JSON, for programs")
      .footer(kFooter);
}
