// `overhub clients`: the clients, and what each last said of what it was handed.
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

struct Clients {
  std::string target = kAllScope;
  Listing list{"clients",
               {{"NAME", "name", Listing::Kind::text},
                {"ID", "id", Listing::Kind::number},
                {"ADDRESS", "address", Listing::Kind::text},
                {"RECORDS", "records", Listing::Kind::number},
                {"LAST SEEN", "lastSeen", Listing::Kind::age},
                {"LAST ACKNOWLEDGEMENT", "acknowledgement", Listing::Kind::text},
                {"ACKNOWLEDGED", "acknowledged", Listing::Kind::age}}};
};

CWmError list(soci::session& session, Clients& wanted) {
  std::vector<Client> clients;
  CWmError error = clientsOfTarget(session, wanted.target, clients);
  if (error.IsError()) return error;
  std::unordered_map<std::int64_t, Contact> contacts;
  for (Contact& contact : allContacts(session)) contacts.emplace(contact.client, std::move(contact));
  for (const Client& client : clients) {
    const Contact& contact = contacts[client.id];
    wanted.list.addRow({client.name, client.id, client.host.empty() ? contact.address : client.host,
                        contact.records, contact.lastSeen,
                        contact.outcome == 0 ? "never" : outcomeText(contact.outcome), contact.outcomeTime});
  }
  return {};
}

int clients(const Store& store, Clients& wanted) {
  const Listing empty = wanted.list;
  const CWmError error = store.database().read([&](soci::session& session) {
    wanted.list = empty;
    wanted.list.asOf(store.database().now(session));
    return list(session, wanted);
  });
  if (error.IsError()) return storeFailed(error);
  print(wanted.list.output());
  return kExitOk;
}

}  // namespace

void addClients(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Clients>();
  auto options = line.add("clients", "List the clients",
                          onStore(place, [wanted](const Store& store) { return clients(store, *wanted); }));
  options.option("TARGET", wanted->target, kTargetForms);
  wanted->list.describe(options);
}
