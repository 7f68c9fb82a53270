// `overhub log`: who changed what, when and why.
#include <algorithm>
#include <limits>
#include <memory>

#include "common/terminal_text.h"
#include "lqregistry/UtcText.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/difference_list.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/setting_place.h"

namespace {

constexpr const char* kFooter =
    R"(Of a machine it tells also what was said to the groups that it was ever in, and to all. Machines and groups that
are no more have a history as well. '*' is every machine.

Examples:
  overhub log
  overhub log web-1
  overhub log '*' '~/Limits' nMAX --limit 5
  overhub log @berlin --json)";

constexpr int kDefaultLimit = 50;

// So many revisions are looked at in one go, from the newest on back.
constexpr std::int64_t kWindow = 200;

// A revision can change ten thousand things; people see so many of them.
constexpr std::size_t kShownChanges = 20;

struct Log {
  std::string target;
  std::string path;
  std::string name;
  int limit = kDefaultLimit;
  bool isJson = false;
};

struct Found {
  std::vector<LogEntry> entries;  // newest last
  bool isMore = false;            // older ones than these
};

// The newest revisions of the window that are meant, newest first, until there are as many as wanted and one
// more.
void look(soci::session& session, std::int64_t from, std::int64_t to, const HistoryFilter& filter,
          const EverScopeNames& names, std::size_t wanted, std::vector<LogEntry>& entries) {
  auto changes = changesOf(session, from, to);
  for (auto change = changes.rbegin(); change != changes.rend() && entries.size() <= wanted; ++change) {
    auto& [number, differences] = *change;
    keepOnly(filter, differences);
    if (differences.isEmpty()) continue;
    const auto revision = findRevision(session, number);
    if (revision) entries.push_back({*revision, rowsOf(differences, names)});
  }
}

CWmError find(soci::session& session, const Log& wanted, Found& found) {
  HistoryFilter filter;
  CWmError error = wanted.target.empty() ? CWmError() : filterFor(session, wanted.target, filter);
  if (error.IsError()) return error;
  if (!wanted.path.empty()) filter.place = settingPlace(wanted.path);
  filter.name = wanted.name;
  const EverScopeNames names(session);
  const auto limit = static_cast<std::size_t>(wanted.limit);
  std::int64_t to = newestRevision(session);
  while (to > 0 && found.entries.size() <= limit) {
    look(session, std::max<std::int64_t>(to - kWindow, 0), to, filter, names, limit, found.entries);
    to = lastRevisionUpTo(session, to - kWindow);
  }
  found.isMore = found.entries.size() > limit;
  if (found.isMore) found.entries.resize(limit);
  std::reverse(found.entries.begin(), found.entries.end());
  return {};
}

std::string textOf(const LogEntry& entry) {
  const Revision& revision = entry.revision;
  std::string text = "revision " + std::to_string(revision.number) + "  " + lqtext::utcText(revision.time) +
                     "  " + programs::escapedForTerminal(revision.who) + "  " +
                     programs::escapedForTerminal(revision.command) + "\n";
  if (!revision.why.empty()) text += "  why: " + programs::escapedForTerminal(revision.why) + "\n";
  for (std::size_t i = 0; i < std::min(entry.rows.size(), kShownChanges); ++i)
    text += "  " + lineOf(entry.rows[i]) + "\n";
  if (entry.rows.size() > kShownChanges) {
    text += "  and " + std::to_string(entry.rows.size() - kShownChanges) + " more; \"overhub diff " +
            std::to_string(revision.number - 1) + " " + std::to_string(revision.number) + "\" shows all\n";
  }
  return text;
}

int log(const Store& store, const Log& wanted) {
  Found found;
  const CWmError error = store.database().read([&](soci::session& session) {
    found = Found();
    return find(session, wanted, found);
  });
  if (error.IsError()) return storeFailed(error);
  if (wanted.isJson) {
    print(jsonOf(found.entries));
  } else {
    std::string text;
    for (const LogEntry& entry : found.entries) text += textOf(entry);
    print(text);
  }
  if (found.isMore) warn("there are older revisions; --limit shows more");
  return kExitOk;
}

}  // namespace

void addLog(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Log>();
  auto options = line.add("log", "Print who changed what, when and why, newest last; secrets hidden",
                          onStore(place, [wanted](const Store& store) { return log(store, *wanted); }));
  options.option("TARGET", wanted->target, std::string(kTargetForms) + "; @static for the static list")
      .option("PATH", wanted->path, "Only what is in this key")
      .option("NAME", wanted->name, "Only this value, or sub-key")
      .bounded("--limit N", wanted->limit, 1, std::numeric_limits<int>::max(), "The newest N revisions")
      .flag("--json", wanted->isJson, "Print it as JSON, for programs")
      .footer(kFooter);
}
