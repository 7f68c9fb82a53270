#include "overhub/store/origins.h"

#include <set>

#include "overhub/store/groups.h"
#include "overhub/store/machine_batch.h"
#include "overhub/store/revisions.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace {

constexpr std::size_t kMaxOrigins = 20'000;

// As people name it.
std::string scopeName(const std::string& scope, const Client& client) {
  if (const std::string group = groupOfScope(scope); !group.empty()) return "@" + group;
  return clientOfScope(scope) == client.id ? client.name : scope;
}

}  // namespace

void addOrigins(soci::session& session, const Client& client, std::int64_t revision, std::int64_t now,
                HostReport::Answer& answer) {
  std::vector<std::vector<Setting>> scopes;
  for (const std::string& scope : scopesOf(session, client.id, client.name, revision))
    scopes.push_back(settingsOf(session, scope, revision));
  std::set<std::int64_t> named;
  HostReport::OriginList& origins = answer.origins.edit();
  for (const auto& [identity, effective] : effectiveSettings(scopes, now)) {
    if (origins.size() == kMaxOrigins) break;
    HostReport::Origin& origin = origins.emplace_back();
    origin.keyPath = effective.setting.path;
    origin.valueName = identity.name;
    origin.revision = effective.setting.validFrom;
    origin.scope = scopeName(effective.setting.scope, client);
    named.insert(effective.setting.validFrom);
  }
  HostReport::RevisionList& list = answer.revisions.edit();
  if (named.empty()) return;
  for (const Revision& each : revisionsBetween(session, *named.begin(), *named.rbegin())) {
    if (!named.contains(each.number)) continue;
    HostReport::Revision& told = list.emplace_back();
    told.number = each.number;
    told.time = each.time;
    told.who = each.who;
    told.why = each.why;
  }
}
