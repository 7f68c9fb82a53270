#include "overhub/store/later_changes.h"

#include "overhub/store/scope.h"

LaterChanges::LaterChanges(soci::session& session, std::int64_t revision) {
  for (const auto& [later, differences] : changesOf(session, revision, newestRevision(session))) {
    for (const SettingDifference& setting : differences.settings) {
      settings_[{setting.scope, setting.identity}] = later;
      inGroups_[groupOfScope(setting.scope)] = later;
    }
    for (const GroupDifference& group : differences.groups) groups_[group.name] = later;
    for (const MemberDifference& member : differences.members) {
      members_[member.member] = later;
      inGroups_[member.member.group] = later;
    }
    for (const ClientDifference& client : differences.clients) clients_[client.client.id] = later;
  }
}

std::string namedRevision(soci::session& session, std::int64_t revision) {
  const auto found = findRevision(session, revision);
  return "revision " + std::to_string(revision) +
         (found ? " of " + found->who + " (" + found->command + ")" : std::string());
}
