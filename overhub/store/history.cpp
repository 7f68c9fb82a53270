#include "overhub/store/history.h"

#include <algorithm>
#include <utility>

#include "overhub/store/query.h"
#include "overhub/store/schema.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace {

using soci::into;
using soci::use;

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

// Something that is valid from a revision to another, as it is in the store.
template <class What>
struct Valid {
  What what;
  std::int64_t from = 0;
  std::int64_t to = kOpen;
};

// Puts together what ended and what began; what ended and began again as it was makes no difference.
class Collector {
 public:
  void add(const Setting& setting, bool isAfter) {
    SettingDifference& difference = settings_[{setting.scope, setting.identity}];
    (isAfter ? difference.after : difference.before) = setting;
  }
  void add(const Group& group, bool isAfter) {
    GroupDifference& difference = groups_[group.name];
    (isAfter ? difference.after : difference.before) = group.number;
  }
  void add(const Member& member, bool isAfter) { members_[member] += isAfter ? 1 : -1; }
  void add(const Client& client, bool isAfter) { clients_[client.id] = {client, isAfter}; }
  // That everything is withdrawn from a client.
  void add(const std::pair<Client, bool>& withdrawn, bool isAfter) {
    withdrawals_[withdrawn.first.id] = {withdrawn.first, isAfter};
  }

  Differences take() {
    Differences taken;
    for (auto& [key, difference] : settings_) {
      if (difference.before && difference.after && difference.before->saysAs(*difference.after)) continue;
      difference.scope = key.first;
      difference.identity = key.second;
      taken.settings.push_back(std::move(difference));
    }
    for (auto& [name, difference] : groups_)
      if (difference.before != difference.after)
        taken.groups.push_back({name, difference.before, difference.after});
    for (const auto& [member, sum] : members_)
      if (sum != 0) taken.members.push_back({member, sum > 0});
    using Kind = ClientDifference::Kind;
    for (auto& [id, client] : clients_)
      taken.clients.push_back({client.first, client.second ? Kind::added : Kind::removed});
    for (auto& [id, client] : withdrawals_)
      if (!clients_.contains(id))
        taken.clients.push_back({client.first, client.second ? Kind::withdrawn : Kind::takenBack});
    return taken;
  }

 private:
  std::map<std::pair<std::string, Identity>, SettingDifference> settings_;
  std::map<std::string, GroupDifference> groups_;
  std::map<Member, int> members_;
  std::map<std::int64_t, std::pair<Client, bool>> clients_;
  std::map<std::int64_t, std::pair<Client, bool>> withdrawals_;
};

// What a revision after `from`, up to `to`, began or ended, of a table and its alias.
std::string touched(const std::string& table) {
  return "((" + table + "valid_from > :begun_from AND " + table + "valid_from <= :begun_to) OR (" + table +
         "valid_to > :ended_from AND " + table + "valid_to <= :ended_to))";
}

// Calls `each` for all that was touched in these revisions.
template <class Each>
void forEachTouched(soci::session& session, std::int64_t from, std::int64_t to, Each each) {
  for (const Setting& setting : settingsTouched(session, from, to))
    each(Valid<Setting>{setting, setting.validFrom, setting.validTo});
  const auto select = [&](const std::string& query, auto& row, auto&&... columns) {
    forEachRow(
        session, query, [&] { each(row); }, into(columns)..., into(row.from), into(row.to),
        use(from, "begun_from"), use(to, "begun_to"), use(from, "ended_from"), use(to, "ended_to"));
  };
  Valid<Group> group;
  select("SELECT name, number, valid_from, valid_to FROM machine_groups WHERE " + touched(""), group,
         group.what.name, group.what.number);
  Valid<Member> member;
  select("SELECT machine_group, pattern, valid_from, valid_to FROM members WHERE " + touched(""), member,
         member.what.group, member.what.pattern);
  Valid<Client> client;
  select("SELECT id, name, valid_from, valid_to FROM clients WHERE " + touched(""), client, client.what.id,
         client.what.name);
  Valid<std::pair<Client, bool>> withdrawn;
  select(
      "SELECT c.id, c.name, w.valid_from, w.valid_to FROM withdrawals w JOIN clients c ON c.id = w.client"
      " WHERE " +
          touched("w."),
      withdrawn, withdrawn.what.first.id, withdrawn.what.first.name);
}

struct EverClient {
  Client client;
  std::int64_t validTo = kOpen;
};

std::vector<EverClient> allEverClients(soci::session& session) {
  std::vector<EverClient> clients;
  EverClient row;
  forEachRow(
      session, "SELECT id, name, valid_to FROM clients ORDER BY id", [&] { clients.push_back(row); },
      into(row.client.id), into(row.client.name), into(row.validTo));
  return clients;
}

std::vector<Member> allEverMembers(soci::session& session) {
  std::vector<Member> members;
  Member row;
  forEachRow(
      session, "SELECT DISTINCT machine_group, pattern FROM members", [&] { members.push_back(row); },
      into(row.group), into(row.pattern));
  return members;
}

// Whether a member is one of these machines, or takes one in.
bool isAbout(const Member& member, const std::set<std::string>& clients) {
  if (!isPattern(member.pattern)) return clients.contains(member.pattern);
  return std::any_of(clients.begin(), clients.end(),
                     [&member](const std::string& client) { return isMeantBy(member.pattern, client); });
}

CWmError addGroupTo(soci::session& session, const std::string& group, HistoryFilter& filter) {
  std::int64_t found = 0;
  session << "SELECT COUNT(*) FROM machine_groups WHERE name = :name", use(group), into(found);
  if (found == 0) return refused("there is no group \"" + group + "\", nor was there one");
  filter.groups.insert(group);
  filter.scopes->insert(groupScope(group));
  return {};
}

CWmError addMachinesTo(soci::session& session, const std::string& pattern, HistoryFilter& filter) {
  std::set<std::string> names;
  for (const EverClient& ever : allEverClients(session)) {
    if (!isMeantBy(pattern, ever.client.name)) continue;
    names.insert(ever.client.name);
    filter.scopes->insert(machineScope(ever.client.id));
  }
  if (names.empty()) return refused("there is no client \"" + pattern + "\", nor was there one");
  for (const Member& member : allEverMembers(session))
    if (isAbout(member, names)) filter.scopes->insert(groupScope(member.group));
  filter.scopes->insert(kAllScope);
  filter.clients.merge(names);
  return {};
}

}  // namespace

bool Differences::isEmpty() const {
  return count() == 0;
}

std::size_t Differences::count() const {
  return settings.size() + groups.size() + members.size() + clients.size();
}

Differences differencesBetween(soci::session& session, std::int64_t from, std::int64_t to) {
  const std::int64_t earlier = std::min(from, to);
  const std::int64_t later = std::max(from, to);
  Collector collector;
  forEachTouched(session, earlier, later, [&](const auto& valid) {
    const bool isAtEarlier = valid.from <= earlier;
    const bool isAtLater = valid.to > later;
    if (isAtEarlier != isAtLater) collector.add(valid.what, isAtLater == (earlier == from));
  });
  return collector.take();
}

std::map<std::int64_t, Differences> changesOf(soci::session& session, std::int64_t from, std::int64_t to) {
  std::map<std::int64_t, Collector> collectors;
  forEachTouched(session, from, to, [&](const auto& valid) {
    if (valid.to <= to) collectors[valid.to].add(valid.what, false);
    if (valid.from > from) collectors[valid.from].add(valid.what, true);
  });
  std::map<std::int64_t, Differences> changes;
  for (auto& [revision, collector] : collectors)
    if (Differences differences = collector.take(); !differences.isEmpty())
      changes.emplace(revision, std::move(differences));
  return changes;
}

CWmError filterFor(soci::session& session, const std::string& target, HistoryFilter& filter) {
  filter.scopes.emplace();
  for (std::size_t at = 0; at <= target.size();) {
    const std::size_t end = std::min(target.find(',', at), target.size());
    const std::string item = target.substr(at, end - at);
    at = end + 1;
    if (item == kAllScope || item == kStaticScope) {
      filter.scopes->insert(item);
      continue;
    }
    const bool isGroup = item.starts_with('@');
    CWmError error =
        isGroup ? addGroupTo(session, item.substr(1), filter) : addMachinesTo(session, item, filter);
    if (error.IsError()) return error;
  }
  return {};
}

void keepOnly(const HistoryFilter& filter, Differences& differences) {
  const std::string ended = valueOfExpiry(filter.name);
  const std::string& name = ended.empty() ? filter.name : ended;
  const bool isSettingsOnly = !filter.place.empty() || !filter.name.empty();
  const auto isOutside = [&filter](const std::string& scope) {
    return filter.scopes && !filter.scopes->contains(scope);
  };
  std::erase_if(differences.settings, [&](const SettingDifference& setting) {
    return isOutside(setting.scope) || (!filter.place.empty() && setting.identity.place != filter.place) ||
           (!name.empty() && setting.identity.name != name);
  });
  std::erase_if(differences.groups, [&](const GroupDifference& group) {
    return isSettingsOnly || isOutside(groupScope(group.name));
  });
  std::erase_if(differences.members, [&](const MemberDifference& difference) {
    const bool isMeant = !filter.scopes || filter.groups.contains(difference.member.group) ||
                         isAbout(difference.member, filter.clients);
    return isSettingsOnly || !isMeant;
  });
  std::erase_if(differences.clients, [&](const ClientDifference& difference) {
    return isSettingsOnly || (filter.scopes && !filter.clients.contains(difference.client.name));
  });
}

ShownDifference shown(const SettingDifference& difference) {
  const Setting* const before = difference.before ? &*difference.before : nullptr;
  const Setting* const after = difference.after ? &*difference.after : nullptr;
  ShownDifference texts{shownInFull(before), shownInFull(after)};
  if (before == nullptr || after == nullptr) return texts;
  const bool isSameText = shownValue(*before) == shownValue(*after);
  if (isSameText && (before->secret != after->secret || before->value != after->value))
    texts.after += " (set anew)";
  if (before->path != after->path) texts.after += " (as " + after->path + ")";
  if (texts.before == texts.after) texts.after += " (as " + after->type + ")";
  return texts;
}

EverScopeNames::EverScopeNames(soci::session& session) {
  for (EverClient& ever : allEverClients(session))
    clients_[ever.client.id] = {std::move(ever.client.name), ever.validTo == kOpen};
}

std::string EverScopeNames::of(const std::string& scope) const {
  if (const std::string group = groupOfScope(scope); !group.empty()) return "@" + group;
  const std::int64_t id = clientOfScope(scope);
  const auto found = clients_.find(id);
  if (id == 0 || found == clients_.end()) return scope;
  const auto& [name, isThere] = found->second;
  return isThere ? name : name + " (client " + std::to_string(id) + ", removed)";
}
