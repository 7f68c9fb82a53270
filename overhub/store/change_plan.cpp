#include "overhub/store/change_plan.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "common/machine_identity.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace {

// Of several edits of one thing the last counts.
template <class Edit, class KeyOf>
void keepLast(std::vector<Edit>& edits, KeyOf keyOf) {
  std::set<decltype(keyOf(edits.front()))> seen;
  std::vector<Edit> kept;
  for (auto edit = edits.rbegin(); edit != edits.rend(); ++edit)
    if (seen.insert(keyOf(*edit)).second) kept.push_back(std::move(*edit));
  edits.assign(std::make_move_iterator(kept.rbegin()), std::make_move_iterator(kept.rend()));
}

class Planner {
 public:
  Planner(soci::session& session, std::int64_t revision, ChangeSet& changes, ChangePlan& plan)
      : session_(session), revision_(revision), changes_(changes), plan_(plan) {}

  void run() {
    plan_.fleetBefore = {
        allClients(session_), groupsAt(session_, revision_), membersAt(session_, revision_), {}};
    for (const auto& [client, since] : withdrawalsAt(session_, revision_))
      plan_.fleetBefore.withdrawn.insert(client);
    endWithGroups();
    keepLast(changes_.settings, [](const auto& edit) { return std::pair(edit.scope, edit.identity); });
    keepLast(changes_.groups, [](const auto& edit) { return edit.name; });
    keepLast(changes_.members, [](const auto& edit) { return edit.member; });
    collectNames();
    for (const std::string& name : plan_.names)
      for (Setting& setting : settingsNamed(session_, name))
        plan_.before[{setting.scope, name}].push_back(std::move(setting));
    plan_.after = plan_.before;
    for (const auto& edit : changes_.settings) editSetting(edit);
    editFleet();
    dropWhatIsSo();
  }

 private:
  // With a group goes who was in it and what was said to it, and with a machine what was said to it.
  void endWithGroups() {
    std::vector<std::string> scopes;
    for (const std::int64_t id : changes_.removedClients) scopes.push_back(machineScope(id));
    for (const auto& edit : changes_.groups) {
      if (edit.number) continue;
      scopes.push_back(groupScope(edit.name));
      for (const Member& member : plan_.fleetBefore.members)
        if (member.group == edit.name) changes_.members.push_back({member, false});
    }
    for (const std::string& scope : scopes)
      for (const Setting& setting : settingsOf(session_, scope, revision_))
        changes_.withdraw(scope, setting.identity);
  }

  void collectNames() {
    for (const auto& edit : changes_.settings) plan_.names.insert(edit.identity.name);
    for (const std::string& group : touchedGroups(changes_))
      for (const Setting& setting : settingsOf(session_, groupScope(group), revision_))
        plan_.names.insert(setting.identity.name);
    if (!changes_.newClients.empty()) collectNamesForNewClients();
    if (!changes_.withdrawals.empty())
      for (const Setting& setting : allSettings(session_)) plan_.names.insert(setting.identity.name);
  }

  // What may refuse a machine that comes: an end, and what takes its way back from it.
  void collectNamesForNewClients() {
    for (const std::string& name : namesThatEnd(session_)) plan_.names.insert(name);
    std::vector<std::string> scopes{kAllScope};
    for (const Group& group : plan_.fleetBefore.groups) scopes.push_back(groupScope(group.name));
    for (const std::string& scope : scopes)
      for (const Setting& setting : settingsOf(session_, scope, revision_))
        if (programs::isWayBack(recordOf(setting))) plan_.names.insert(setting.identity.name);
  }

  void editSetting(const ChangeSet::SettingEdit& edit) {
    std::vector<Setting>& said = plan_.after[{edit.scope, edit.identity.name}];
    std::erase_if(said, [&edit](const Setting& setting) { return setting.identity == edit.identity; });
    if (edit.after) said.push_back(*edit.after);
  }

  void editFleet() {
    Fleet& fleet = plan_.fleetAfter;
    fleet = plan_.fleetBefore;
    for (const auto& edit : changes_.groups) {
      std::erase_if(fleet.groups, [&edit](const Group& group) { return group.name == edit.name; });
      if (edit.number) fleet.groups.push_back({edit.name, *edit.number});
    }
    std::set<Member> members(fleet.members.begin(), fleet.members.end());
    for (const auto& edit : changes_.members) {
      members.erase(edit.member);
      if (edit.isMember) members.insert(edit.member);
    }
    fleet.members.assign(members.begin(), members.end());
    for (const auto& [client, isWithdrawn] : changes_.withdrawals) {
      fleet.withdrawn.erase(client);
      if (isWithdrawn) fleet.withdrawn.insert(client);
    }
    for (const auto& added : changes_.newClients) fleet.clients.push_back(added.client);
    const std::set<std::int64_t> removed(changes_.removedClients.begin(), changes_.removedClients.end());
    std::erase_if(fleet.clients, [&removed](const Client& client) { return removed.contains(client.id); });
  }

  void dropWhatIsSo() {
    const Fleet& fleet = plan_.fleetBefore;
    std::erase_if(changes_.settings, [this](const ChangeSet::SettingEdit& edit) {
      const Setting* const is = findSaid(plan_.before, edit.scope, edit.identity);
      return edit.after ? is != nullptr && is->saysAs(*edit.after) : is == nullptr;
    });
    std::erase_if(changes_.groups, [&fleet](const ChangeSet::GroupEdit& edit) {
      const auto is = std::find_if(fleet.groups.begin(), fleet.groups.end(),
                                   [&edit](const Group& group) { return group.name == edit.name; });
      return is == fleet.groups.end() ? !edit.number : edit.number == is->number;
    });
    std::erase_if(changes_.withdrawals, [&fleet](const ChangeSet::Withdrawal& edit) {
      return fleet.withdrawn.contains(edit.client) == edit.isWithdrawn;
    });
    const std::set<Member> members(fleet.members.begin(), fleet.members.end());
    std::erase_if(changes_.members, [&members](const ChangeSet::MemberEdit& edit) {
      return members.contains(edit.member) == edit.isMember;
    });
  }

  soci::session& session_;
  std::int64_t revision_;
  ChangeSet& changes_;
  ChangePlan& plan_;
};

}  // namespace

ChangePlan planOf(soci::session& session, std::int64_t revision, ChangeSet& changes) {
  ChangePlan plan;
  Planner(session, revision, changes, plan).run();
  return plan;
}

const Setting* findSaid(const TouchedSettings& settings, const std::string& scope, const Identity& identity) {
  const auto said = settings.find({scope, identity.name});
  if (said == settings.end()) return nullptr;
  const auto found =
      std::find_if(said->second.begin(), said->second.end(),
                   [&identity](const Setting& setting) { return setting.identity == identity; });
  return found == said->second.end() ? nullptr : &*found;
}

std::set<std::string> touchedGroups(const ChangeSet& changes) {
  std::set<std::string> groups;
  for (const auto& edit : changes.groups) groups.insert(edit.name);
  for (const auto& edit : changes.members) groups.insert(edit.member.group);
  return groups;
}
