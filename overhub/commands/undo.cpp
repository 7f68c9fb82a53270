// `overhub undo`: puts back what a revision changed, in a new one.
#include <memory>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/store/undo.h"

namespace {

constexpr const char* kFooter =
    R"(Settings, groups and their members become what they were before the revision. Refused when a later one has changed
something of it: undo that one first. An undo is a revision like any other, and can be undone.

Examples:
  overhub undo 17 --dry-run
  overhub undo 17 --why "broke the build machines")";

struct Undo {
  std::int64_t revision = 0;
  ChangeOptions change;
};

int undo(const Store& store, const Undo& wanted) {
  LeftOut leftOut;
  const int exitCode = wanted.change.make(store, "undo " + std::to_string(wanted.revision),
                                          [&](soci::session& session, ChangeSet& changes) {
                                            return buildUndo(session, wanted.revision, changes, leftOut);
                                          });
  if (exitCode == kExitOk && !leftOut.empty()) warn(leftOut);
  return exitCode;
}

}  // namespace

void addUndo(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Undo>();
  auto options = line.add("undo", "Put back what a revision changed",
                          onStore(place, [wanted](const Store& store) { return undo(store, *wanted); }));
  options.required("REVISION", wanted->revision, "Its number, as \"overhub log\" shows it");
  wanted->change.describe(options);
  options.footer(kFooter);
}
