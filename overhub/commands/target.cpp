#include "overhub/commands/target.h"

#include <algorithm>
#include <unordered_set>

#include "common/natural_order.h"
#include "overhub/store/change.h"
#include "overhub/store/groups.h"
#include "overhub/store/scope.h"

namespace {

constexpr char kGroupMark = '@';

std::vector<std::string> itemsOf(const std::string& target) {
  std::vector<std::string> items;
  for (std::size_t at = 0; at <= target.size();) {
    const std::size_t end = std::min(target.find(',', at), target.size());
    items.push_back(target.substr(at, end - at));
    at = end + 1;
  }
  return items;
}

CWmError notFound(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

CWmError noClient(const std::string& name) {
  return notFound("there is no client \"" + name +
                  "\"; \"overhub clients\" lists those there are, "
                  "\"overhub add-client\" adds one");
}

CWmError findGroup(soci::session& session, const std::string& item) {
  const std::string name = item.substr(1);
  for (const Group& group : groupsAt(session, newestRevision(session)))
    if (group.name == name) return {};
  return notFound("there is no group \"" + name +
                  "\"; \"overhub groups\" lists those there are, \"overhub "
                  "add-group\" adds one");
}

CWmError matching(soci::session& session, const std::string& pattern, std::vector<Client>& clients) {
  const std::size_t before = clients.size();
  for (const Client& client : allClients(session))
    if (isMeantBy(pattern, client.name)) clients.push_back(client);
  if (clients.size() != before) return {};
  return notFound("no client's name is like \"" + pattern + "\"");
}

CWmError membersOf(soci::session& session, const std::string& item, std::vector<Client>& clients) {
  CWmError error = findGroup(session, item);
  if (error.IsError()) return error;
  const std::string name = item.substr(1);
  std::unordered_set<std::string> names;
  std::vector<std::string> patterns;  // apart from the names, of which there may be thousands
  for (Member& member : membersAt(session, newestRevision(session))) {
    if (member.group != name) continue;
    if (isPattern(member.pattern)) {
      patterns.push_back(std::move(member.pattern));
    } else {
      names.insert(std::move(member.pattern));
    }
  }
  for (const Client& client : allClients(session)) {
    const bool isMember = names.contains(client.name) || std::any_of(patterns.begin(), patterns.end(),
                                                                     [&client](const std::string& pattern) {
                                                                       return isMeantBy(pattern, client.name);
                                                                     });
    if (isMember) clients.push_back(client);
  }
  return {};
}

CWmError clientsOfItem(soci::session& session, const std::string& item, std::vector<Client>& clients) {
  if (item == kAllScope) {
    for (Client& client : allClients(session)) clients.push_back(std::move(client));
    return {};
  }
  if (item == kStaticScope) return notFound("@static is a list and no machine");
  if (item.starts_with(kGroupMark)) return membersOf(session, item, clients);
  if (isPattern(item)) return matching(session, item, clients);
  Client client;
  CWmError error = oneClient(session, item, client);
  if (!error.IsError()) clients.push_back(std::move(client));
  return error;
}

CWmError scopesOfItem(soci::session& session, const std::string& item, std::vector<std::string>& scopes) {
  if (item == kAllScope || item == kStaticScope) {
    scopes.push_back(item);
    return {};
  }
  if (item.starts_with(kGroupMark)) {
    CWmError error = findGroup(session, item);
    if (!error.IsError()) scopes.push_back(groupScope(item.substr(1)));
    return error;
  }
  std::vector<Client> clients;
  CWmError error = clientsOfItem(session, item, clients);
  for (const Client& client : clients) scopes.push_back(machineScope(client.id));
  return error;
}

}  // namespace

CWmError scopesOfTarget(soci::session& session, const std::string& target, std::vector<std::string>& scopes) {
  scopes.clear();
  for (const std::string& item : itemsOf(target))
    if (CWmError error = scopesOfItem(session, item, scopes); error.IsError()) return error;
  std::sort(scopes.begin(), scopes.end());
  scopes.erase(std::unique(scopes.begin(), scopes.end()), scopes.end());
  return {};
}

CWmError clientsOfTarget(soci::session& session, const std::string& target, std::vector<Client>& clients) {
  clients.clear();
  for (const std::string& item : itemsOf(target))
    if (CWmError error = clientsOfItem(session, item, clients); error.IsError()) return error;
  std::sort(clients.begin(), clients.end(),
            [](const Client& a, const Client& b) { return programs::comesBefore(a.name, b.name); });
  clients.erase(std::unique(clients.begin(), clients.end(),
                            [](const Client& a, const Client& b) { return a.id == b.id; }),
                clients.end());
  return {};
}

CWmError oneClient(soci::session& session, const std::string& name, Client& client) {
  auto found = findClient(session, name);
  if (!found) return noClient(name);
  client = std::move(*found);
  return {};
}

ScopeNames::ScopeNames(soci::session& session) : clients_(allClients(session)) {
  std::sort(clients_.begin(), clients_.end(), [](const Client& a, const Client& b) { return a.id < b.id; });
}

std::string ScopeNames::of(const std::string& scope) const {
  if (const std::string group = groupOfScope(scope); !group.empty()) return kGroupMark + group;
  const std::int64_t id = clientOfScope(scope);
  if (id == 0) return scope;
  const auto found =
      std::lower_bound(clients_.begin(), clients_.end(), id,
                       [](const Client& client, std::int64_t wanted) { return client.id < wanted; });
  return found != clients_.end() && found->id == id ? found->name
                                                    : "client " + std::to_string(id) + " (removed)";
}
