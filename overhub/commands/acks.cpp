// `overhub acks`: what clients have acknowledged.
#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <unordered_map>

#include "overhub/commands/commands.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/scope.h"

namespace {

constexpr int kDefaultLimit = 1000;

struct Acks {
  std::string target = kAllScope;
  int limit = kDefaultLimit;
  Listing list{"acknowledgements",
               {{"TIME", "time", Listing::Kind::time},
                {"CLIENT", "client", Listing::Kind::text},
                {"ID", "id", Listing::Kind::number},
                {"STATUS", "taskStatus", Listing::Kind::number},
                {"OUTCOME", "outcome", Listing::Kind::text}}};
};

bool isNewer(const Acknowledgement& a, const Acknowledgement& b) {
  return a.time > b.time;
}

// The newest of all these clients, newest first, and one more than wanted if there are more. Who has said
// nothing since the oldest of them is not asked.
void findNewest(soci::session& session, const std::vector<Client>& clients, std::size_t wanted,
                std::vector<Acknowledgement>& found) {
  std::unordered_map<std::int64_t, std::int64_t> last;
  for (const Contact& contact : allContacts(session)) last[contact.client] = contact.outcomeTime;
  std::vector<Client> order = clients;
  std::stable_sort(order.begin(), order.end(),
                   [&last](const Client& a, const Client& b) { return last[a.id] > last[b.id]; });
  found.clear();
  for (const Client& client : order) {
    if (found.size() > wanted && found.back().time > last[client.id]) return;
    auto of = newestAcknowledgements(session, client.id, client.name, static_cast<std::int64_t>(wanted) + 1);
    const auto middle = static_cast<std::ptrdiff_t>(found.size());
    found.insert(found.end(), std::move_iterator(of.begin()), std::move_iterator(of.end()));
    std::inplace_merge(found.begin(), found.begin() + middle, found.end(), isNewer);
    if (found.size() > wanted + 1) found.resize(wanted + 1);
  }
}

int acks(const Store& store, Acks& wanted) {
  std::vector<Acknowledgement> found;
  const auto limit = static_cast<std::size_t>(wanted.limit);
  const CWmError error = store.database().read([&](soci::session& session) {
    std::vector<Client> clients;
    CWmError fault = clientsOfTarget(session, wanted.target, clients);
    if (!fault.IsError()) findNewest(session, clients, limit, found);
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  const bool isMore = found.size() > limit;
  if (isMore) found.resize(limit);
  std::reverse(found.begin(), found.end());
  for (const Acknowledgement& entry : found)
    wanted.list.addRow(
        {entry.time, entry.client, entry.namedId, entry.taskStatus, outcomeText(entry.taskStatus)});
  print(wanted.list.output());
  if (isMore) warn("there are older acknowledgements; --limit shows more");
  return kExitOk;
}

}  // namespace

void addAcks(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Acks>();
  auto options = line.add("acks", "List what clients have acknowledged, newest last",
                          onStore(place, [wanted](const Store& store) { return acks(store, *wanted); }));
  options.option("TARGET", wanted->target, kTargetForms)
      .bounded("--limit N", wanted->limit, 1, std::numeric_limits<int>::max(), "The newest N of them");
  wanted->list.describe(options);
}
