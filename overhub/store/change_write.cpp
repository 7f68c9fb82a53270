#include "overhub/store/change_write.h"

#include <algorithm>
#include <set>

#include "overhub/store/change_plan.h"
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

std::set<std::string> touchedScopes(const ChangeSet& changes) {
  std::set<std::string> scopes;
  for (const auto& edit : changes.settings) scopes.insert(edit.scope);
  for (const std::string& group : touchedGroups(changes)) scopes.insert(groupScope(group));
  return scopes;
}

void touchScope(soci::session& session, const std::string& scope, std::int64_t revision,
                bool saysSomethingElse) {
  const std::int64_t said = saysSomethingElse ? revision : 0;
  session << "INSERT INTO scopes (scope, touched, said) VALUES (:scope, :revision, :said) ON CONFLICT"
             " (scope) DO UPDATE SET touched = excluded.touched, said = CASE WHEN excluded.said = 0 THEN"
             " scopes.said ELSE excluded.said END",
      use(scope, "scope"), use(revision, "revision"), use(said, "said");
}

CWmError addClients(soci::session& session, std::int64_t revision, ChangeSet& changes, ChangeResult& result) {
  std::int64_t highest = 0;
  session << "SELECT value FROM counters WHERE name = :name", use(kClientIdCounter), into(highest);
  const std::int64_t before = highest;
  for (ChangeSet::NewClient& wanted : changes.newClients) {
    Client& client = wanted.client;
    if (client.id == 0) {
      if (highest == kOpen) return refused("the highest id is in use; choose a free one with --id");
      client.id = highest + 1;
    }
    highest = std::max(highest, client.id);
    client.validFrom = revision;
    addClient(session, client, wanted.protectedKey);
    result.newClients.push_back(client);
  }
  if (highest != before)
    session << "UPDATE counters SET value = :value WHERE name = :name", use(highest), use(kClientIdCounter);
  return {};
}

}  // namespace

CWmError writeChange(soci::session& session, std::int64_t revision, ChangeSet& changes,
                     ChangeResult& result) {
  for (const auto& edit : changes.settings) {
    endSetting(session, edit.scope, edit.identity, revision);
    if (edit.after) beginSetting(session, *edit.after, revision);
  }
  // Two groups may swap their numbers, and no two have the same one for a moment.
  for (const auto& edit : changes.groups) endGroup(session, edit.name, revision);
  for (const auto& edit : changes.groups)
    if (edit.number) beginGroup(session, {edit.name, *edit.number}, revision);
  for (const auto& edit : changes.members) {
    if (edit.isMember) {
      beginMember(session, edit.member, revision);
    } else {
      endMember(session, edit.member, revision);
    }
  }
  for (const auto& [client, isWithdrawn] : changes.withdrawals) {
    if (isWithdrawn) {
      beginWithdrawal(session, client, revision);
    } else {
      endWithdrawal(session, client, revision);
    }
  }
  std::set<std::string> speaking;
  for (const auto& edit : changes.settings) speaking.insert(edit.scope);
  for (const std::string& scope : touchedScopes(changes))
    touchScope(session, scope, revision, speaking.contains(scope));
  for (const std::int64_t id : result.effects.newScopesFor) touchClient(session, id, revision);
  for (const std::int64_t id : changes.removedClients) removeClient(session, id, revision);
  return addClients(session, revision, changes, result);
}
