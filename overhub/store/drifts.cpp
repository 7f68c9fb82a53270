#include "overhub/store/drifts.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "overhub/store/query.h"
#include "overhub/store/report_check.h"

namespace {

using soci::into;
using soci::use;

constexpr std::size_t kKept = 200;

template <class... Uses>
std::vector<DriftCount> select(soci::session& session, const std::string& condition, Uses&&... uses) {
  std::vector<DriftCount> drifts;
  DriftCount row;
  int isSecret = 0;
  const auto keep = [&] {
    row.isSecret = isSecret != 0;
    drifts.push_back(row);
  };
  forEachRow(session,
             "SELECT client, path, name, times, first_time, last_time, found, corrected, is_secret FROM"
             " drift_counts" +
                 condition + " ORDER BY path, name, client",
             keep, into(row.client), into(row.path), into(row.name), into(row.times), into(row.first),
             into(row.last), into(row.found), into(row.corrected), into(isSecret),
             std::forward<Uses>(uses)...);
  return drifts;
}

void write(soci::session& session, const DriftCount& drift) {
  const int isSecret = drift.isSecret ? 1 : 0;
  session << "INSERT INTO drift_counts (client, path, name, times, first_time, last_time, found, corrected,"
             " is_secret) VALUES (:client, :path, :name, :times, :first, :last, :found, :corrected, :secret)"
             " ON CONFLICT (client, path, name) DO UPDATE SET times = excluded.times, first_time = "
             "excluded.first_time, last_time ="
             " excluded.last_time, found = excluded.found, corrected = excluded.corrected, is_secret ="
             " excluded.is_secret",
      use(drift.client, "client"), use(drift.path, "path"), use(drift.name, "name"),
      use(drift.times, "times"), use(drift.first, "first"), use(drift.last, "last"),
      use(drift.found, "found"), use(drift.corrected, "corrected"), use(isSecret, "secret");
}

void forget(soci::session& session, const DriftCount& drift) {
  session << "DELETE FROM drift_counts WHERE client = :client AND path = :path AND name = :name",
      use(drift.client, "client"), use(drift.path, "path"), use(drift.name, "name");
}

}  // namespace

void countDrifts(soci::session& session, std::int64_t client, const HostReport::Report& report,
                 std::int64_t received) {
  if (report.drifts->empty()) return;
  std::map<std::pair<std::string, std::string>, DriftCount> counts;
  for (DriftCount& known : driftsOf(session, client)) {
    const auto place = std::make_pair(known.path, known.name);
    counts.emplace(place, std::move(known));
  }
  for (const HostReport::Drift& drift : report.drifts.get()) {
    const auto place = std::make_pair(asPlainText(drift.keyPath.get()), asPlainText(drift.valueName.get()));
    DriftCount& count = counts[place];
    const std::int64_t told = onOurClock(drift.time, report, received);
    const std::int64_t time = told == 0 ? received : told;
    count.first = count.times == 0 ? time : std::min(count.first, time);
    count.client = client;
    std::tie(count.path, count.name) = place;
    ++count.times;
    if (time >= count.last) {
      count.last = time;
      count.isSecret = drift.isSecret == 1;
      count.found = asPlainText(drift.before.get());
      count.corrected = asPlainText(drift.after.get());
    }
    write(session, count);
  }
  std::vector<const DriftCount*> byAge;
  byAge.reserve(counts.size());
  for (const auto& [place, count] : counts) byAge.push_back(&count);
  std::stable_sort(byAge.begin(), byAge.end(),
                   [](const DriftCount* a, const DriftCount* b) { return a->last > b->last; });
  for (std::size_t i = kKept; i < byAge.size(); ++i) forget(session, *byAge[i]);
}

std::vector<DriftCount> allDrifts(soci::session& session) {
  return select(session, "");
}

std::vector<DriftCount> driftsOf(soci::session& session, std::int64_t client) {
  return select(session, " WHERE client = :client", use(client, "client"));
}

std::unordered_map<std::int64_t, RecentDrift> driftsSince(soci::session& session, std::int64_t time) {
  std::unordered_map<std::int64_t, RecentDrift> drifts;
  std::int64_t client = 0;
  RecentDrift row;
  forEachRow(
      session,
      "SELECT client, COUNT(*), MAX(last_time) FROM drift_counts WHERE last_time > :time GROUP BY client",
      [&] { drifts[client] = row; }, into(client), into(row.values), into(row.last), use(time, "time"));
  return drifts;
}
