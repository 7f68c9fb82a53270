// `overhub remove-client`: takes clients away, with their keys and what was set for them.
#include <memory>
#include <set>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/change.h"

namespace {

constexpr const char* kFooter =
    R"(A client that was removed is let in no more; its id is never given again. Its machine keeps the settings that it
has.)";

struct RemoveClient {
  std::string target;
  ChangeOptions change;
};

CWmError build(soci::session& session, const RemoveClient& wanted, ChangeSet& changes) {
  std::vector<Client> clients;
  const CWmError error = clientsOfTarget(session, wanted.target, clients);
  for (const Client& client : clients) changes.removedClients.push_back(client.id);
  // Their names leave the groups, or a new client of the same name would be in them.
  std::set<std::string> names;
  for (const Client& client : clients) names.insert(client.name);
  for (const Member& member : membersAt(session, newestRevision(session)))
    if (names.contains(member.pattern)) changes.members.push_back({member, false});
  return error;
}

int removeClient(const Store& store, const RemoveClient& wanted) {
  return wanted.change.make(
      store, "remove-client " + wanted.target,
      [&wanted](soci::session& session, ChangeSet& changes) { return build(session, wanted, changes); });
}

}  // namespace

void addRemoveClient(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<RemoveClient>();
  auto options =
      line.add("remove-client", "Take clients away, with their keys and settings",
               onStore(place, [wanted](const Store& store) { return removeClient(store, *wanted); }));
  options.required("TARGET", wanted->target, kTargetForms);
  wanted->change.describe(options);
  options.footer(kFooter);
}
