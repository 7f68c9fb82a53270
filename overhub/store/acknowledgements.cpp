#include "overhub/store/acknowledgements.h"

#include "lqregistry/OBGui.h"
#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

constexpr std::int64_t kKeptSeconds = std::int64_t{90} * 86400;
constexpr std::int64_t kKept = 1000;

}  // namespace

void addAcknowledgement(soci::session& session, std::int64_t clientId,
                        const Acknowledgement& acknowledgement) {
  std::int64_t number = 0;
  session << "SELECT COALESCE(MAX(number), 0) + 1 FROM acknowledgements WHERE client = :client",
      use(clientId, "client"), into(number);
  session << "INSERT INTO acknowledgements (client, number, time, named_id, status) VALUES (:client, :number,"
             " :time, :id, :status)",
      use(clientId, "client"), use(number, "number"), use(acknowledgement.time, "time"),
      use(acknowledgement.namedId, "id"), use(acknowledgement.taskStatus, "status");
  const std::int64_t last = number - kKept;
  session << "DELETE FROM acknowledgements WHERE client = :client AND number <= :last",
      use(clientId, "client"), use(last, "last");
  // One comes, and up to two go that are too old, so that none of all others is looked at.
  const std::int64_t since = acknowledgement.time - kKeptSeconds;
  session << "DELETE FROM acknowledgements WHERE client = :client AND time < :since AND number <= (SELECT"
             " MIN(number) + 1 FROM acknowledgements WHERE client = :same)",
      use(clientId, "client"), use(since, "since"), use(clientId, "same");
}

std::vector<Acknowledgement> newestAcknowledgements(soci::session& session, std::int64_t clientId,
                                                    const std::string& client, std::int64_t count) {
  std::vector<Acknowledgement> list;
  Acknowledgement row;
  row.client = client;
  forEachRow(
      session,
      "SELECT time, named_id, status FROM acknowledgements WHERE client = :client ORDER BY number DESC LIMIT"
      " :count",
      [&] { list.push_back(row); }, into(row.time), into(row.namedId), into(row.taskStatus),
      use(clientId, "client"), use(count, "count"));
  return list;
}

std::string outcomeText(std::int64_t taskStatus) {
  return taskStatus == OBGui::kTaskSuccess ? "applied" : "failed";
}
