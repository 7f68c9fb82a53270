// `overhub acks`: what clients have acknowledged.
#include <algorithm>
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/scope.h"

namespace {

struct Acks {
  std::string target = kAllScope;
  Listing list{"acknowledgements",
               {{"TIME", "time", Listing::Kind::time},
                {"CLIENT", "client", Listing::Kind::text},
                {"ID", "id", Listing::Kind::number},
                {"STATUS", "taskStatus", Listing::Kind::number},
                {"OUTCOME", "outcome", Listing::Kind::text}}};
};

int acks(const Store& store, Acks& wanted) {
  std::vector<Acknowledgement> found;
  const CWmError error = store.database().read([&](soci::session& session) {
    found.clear();
    std::vector<Client> clients;
    CWmError fault = clientsOfTarget(session, wanted.target, clients);
    for (const Client& client : clients)
      for (Acknowledgement& entry : acknowledgementsOf(session, client.id, client.name))
        found.push_back(std::move(entry));
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  std::stable_sort(found.begin(), found.end(),
                   [](const Acknowledgement& a, const Acknowledgement& b) { return a.time < b.time; });
  for (const Acknowledgement& entry : found)
    wanted.list.addRow(
        {entry.time, entry.client, entry.namedId, entry.taskStatus, outcomeText(entry.taskStatus)});
  print(wanted.list.output());
  return kExitOk;
}

}  // namespace

void addAcks(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Acks>();
  auto options = line.add("acks", "List what clients have acknowledged, newest last",
                          onStore(place, [wanted](const Store& store) { return acks(store, *wanted); }));
  options.option("TARGET", wanted->target, kTargetForms);
  wanted->list.describe(options);
}
