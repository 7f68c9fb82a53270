#include "overhub/store/revisions.h"

#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

template <class... Uses>
std::vector<Revision> select(soci::session& session, const std::string& rest, Uses&&... uses) {
  std::vector<Revision> revisions;
  Revision row;
  forEachRow(
      session, "SELECT number, time, who, why, command, confirm FROM revisions " + rest,
      [&] { revisions.push_back(row); }, into(row.number), into(row.time), into(row.who), into(row.why),
      into(row.command), into(row.confirm), std::forward<Uses>(uses)...);
  return revisions;
}

}  // namespace

void writeRevision(soci::session& session, const Revision& revision, const std::string& operation) {
  session << "INSERT INTO revisions (number, time, who, why, command, confirm, operation) VALUES (:number,"
             " :time, :who, :why, :command, :confirm, :operation)",
      use(revision.number, "number"), use(revision.time, "time"), use(revision.who, "who"),
      use(revision.why, "why"), use(revision.command, "command"), use(revision.confirm, "confirm"),
      use(operation, "operation");
}

std::optional<Revision> findRevision(soci::session& session, std::int64_t number) {
  const auto found = select(session, "WHERE number = :number", use(number, "number"));
  return found.empty() ? std::nullopt : std::optional(found.front());
}

std::vector<Revision> allRevisions(soci::session& session) {
  return select(session, "ORDER BY number");
}

std::vector<Revision> revisionsBetween(soci::session& session, std::int64_t first, std::int64_t last) {
  return select(session, "WHERE number >= :first AND number <= :last ORDER BY number", use(first, "first"),
                use(last, "last"));
}

std::vector<Revision> newestRevisions(soci::session& session, std::int64_t count) {
  return select(session, "ORDER BY number DESC LIMIT :count", use(count, "count"));
}

std::int64_t lastRevisionUpTo(soci::session& session, std::int64_t number) {
  std::int64_t last = 0;
  session << "SELECT COALESCE(MAX(number), 0) FROM revisions WHERE number <= :number", soci::use(number),
      soci::into(last);
  return last;
}
