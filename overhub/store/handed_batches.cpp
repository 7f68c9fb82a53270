#include "overhub/store/handed_batches.h"

#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

constexpr std::int64_t kKept = 20;

template <class... Uses>
std::optional<HandedBatch> newest(soci::session& session, const std::string& condition, Uses&&... uses) {
  std::optional<HandedBatch> found;
  HandedBatch row;
  forEachRow(
      session,
      "SELECT number, revision, digest, time FROM hand_outs WHERE " + condition +
          " ORDER BY number DESC LIMIT 1",
      [&] { found = row; }, into(row.number), into(row.revision), into(row.digest), into(row.time),
      std::forward<Uses>(uses)...);
  return found;
}

}  // namespace

void noteHandedBatch(soci::session& session, std::int64_t client, std::int64_t revision,
                     const std::string& digest, std::int64_t now) {
  if (digest.empty()) return;
  const auto before = newestHandedBatch(session, client);
  if (before && before->digest == digest) {
    if (before->revision == revision) return;
    session << "UPDATE hand_outs SET revision = :revision WHERE client = :client AND number = :number",
        use(revision, "revision"), use(client, "client"), use(before->number, "number");
    return;
  }
  const std::int64_t number = before ? before->number + 1 : 1;
  session << "INSERT INTO hand_outs (client, number, revision, digest, time) VALUES (:client, :number,"
             " :revision, :digest, :time)",
      use(client, "client"), use(number, "number"), use(revision, "revision"), use(digest, "digest"),
      use(now, "time");
  const std::int64_t last = number - kKept;
  session << "DELETE FROM hand_outs WHERE client = :client AND number <= :last", use(client, "client"),
      use(last, "last");
}

std::optional<HandedBatch> newestHandedBatch(soci::session& session, std::int64_t client) {
  return newest(session, "client = :client", use(client, "client"));
}

std::optional<HandedBatch> findHandedBatch(soci::session& session, std::int64_t client,
                                           const std::string& digest) {
  if (digest.empty()) return std::nullopt;
  return newest(session, "client = :client AND digest = :digest", use(client, "client"),
                use(digest, "digest"));
}

std::unordered_map<std::int64_t, HandedBatch> newestHandedBatches(soci::session& session) {
  std::unordered_map<std::int64_t, HandedBatch> found;
  std::int64_t client = 0;
  HandedBatch row;
  forEachRow(
      session,
      "SELECT h.client, h.number, h.revision, h.digest, h.time FROM hand_outs h JOIN (SELECT client,"
      " MAX(number) AS number FROM hand_outs GROUP BY client) n ON n.client = h.client AND n.number ="
      " h.number",
      [&] { found[client] = row; }, into(client), into(row.number), into(row.revision), into(row.digest),
      into(row.time));
  return found;
}
