#include "overhub/store/change.h"

#include <algorithm>
#include <map>
#include <set>

#include "common/machine_identity.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/store/effects.h"
#include "overhub/store/query.h"
#include "overhub/store/revisions.h"
#include "overhub/store/schema.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace {

using soci::into;
using soci::use;

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

// Whoever else is about to change something waits here until this is done. It writes, so that what was
// committed before is on every standby once this is.
void takeTurn(soci::session& session) {
  session << "UPDATE counters SET value = value WHERE name = :name", use(kRevisionCounter);
}

std::int64_t takeRevision(soci::session& session) {
  session << "UPDATE counters SET value = value + 1 WHERE name = :name", use(kRevisionCounter);
  return newestRevision(session);
}

// The revision of a change that was made already, by an attempt whose answer was lost; 0: there is none.
std::int64_t revisionOf(soci::session& session, const std::string& operation) {
  std::int64_t revision = 0;
  session << "SELECT number FROM revisions WHERE operation = :operation", use(operation), into(revision);
  return revision;
}

// Of several edits of one thing the last counts.
template <class Edit, class KeyOf>
void keepLast(std::vector<Edit>& edits, KeyOf keyOf) {
  std::set<decltype(keyOf(edits.front()))> seen;
  std::vector<Edit> kept;
  for (auto edit = edits.rbegin(); edit != edits.rend(); ++edit)
    if (seen.insert(keyOf(*edit)).second) kept.push_back(std::move(*edit));
  edits.assign(std::make_move_iterator(kept.rbegin()), std::make_move_iterator(kept.rend()));
}

// One attempt at a change, within its transaction.
class Attempt {
 public:
  Attempt(soci::session& session, const ChangeNote& note, std::int64_t revision, std::int64_t now)
      : session_(session), note_(note), revision_(revision), now_(now) {}

  // Weighs the change; isNothing when all is so already.
  CWmError weighAll(ChangeSet& changes, ChangeResult& result) {
    lookAround(changes);
    dropWhatIsSo(changes);
    result.isNothing = changes.isEmpty();
    if (result.isNothing) return {};
    CWmError error = checkExpected(changes);
    if (error.IsError()) return error;
    error = checkGroups();
    if (error.IsError()) return error;
    result.effects = weigh(names_, before_, after_, fleetBefore_, fleetAfter_, now_);
    noteWayBack(changes, result.effects);
    return checkEffects(result.effects);
  }

  CWmError write(ChangeSet& changes, const std::string& operation, ChangeResult& result) {
    writeRevision(session_, {revision_, now_, note_.who, note_.why, note_.command}, operation);
    for (const auto& edit : changes.settings) {
      endSetting(session_, edit.scope, edit.identity, revision_);
      if (edit.after) beginSetting(session_, *edit.after, revision_);
    }
    // Two groups may swap their numbers, and no two have the same one for a moment.
    for (const auto& edit : changes.groups) endGroup(session_, edit.name, revision_);
    for (const auto& edit : changes.groups)
      if (edit.number) beginGroup(session_, {edit.name, *edit.number}, revision_);
    for (const auto& edit : changes.members) {
      if (edit.isMember) {
        beginMember(session_, edit.member, revision_);
      } else {
        endMember(session_, edit.member, revision_);
      }
    }
    for (const auto& [client, isWithdrawn] : changes.withdrawals) {
      if (isWithdrawn) {
        beginWithdrawal(session_, client, revision_);
      } else {
        endWithdrawal(session_, client, revision_);
      }
    }
    std::set<std::string> speaking;
    for (const auto& edit : changes.settings) speaking.insert(edit.scope);
    for (const std::string& scope : touchedScopes(changes)) touchScope(scope, speaking.contains(scope));
    for (const std::int64_t id : result.effects.newScopesFor) touchClient(session_, id, revision_);
    for (const std::int64_t id : changes.removedClients) removeClient(session_, id, revision_);
    return addClients(changes, result);
  }

 private:
  // Reads what the change may touch, as it is, and makes of it what will be.
  void lookAround(ChangeSet& changes) {
    fleetBefore_ = {allClients(session_), groupsAt(session_, revision_), membersAt(session_, revision_), {}};
    for (const auto& [client, since] : withdrawalsAt(session_, revision_))
      fleetBefore_.withdrawn.insert(client);
    endWithGroups(changes);
    keepLast(changes.settings, [](const auto& edit) { return std::pair(edit.scope, edit.identity); });
    keepLast(changes.groups, [](const auto& edit) { return edit.name; });
    keepLast(changes.members, [](const auto& edit) { return edit.member; });
    for (const auto& edit : changes.settings) names_.insert(edit.identity.name);
    for (const std::string& group : touchedGroups(changes))
      for (const Setting& setting : settingsOf(session_, groupScope(group), revision_))
        names_.insert(setting.identity.name);
    if (!changes.newClients.empty())
      for (const std::string& name : namesThatEnd(session_)) names_.insert(name);
    if (!changes.withdrawals.empty())
      for (const Setting& setting : allSettings(session_)) names_.insert(setting.identity.name);
    for (const std::string& name : names_)
      for (Setting& setting : settingsNamed(session_, name))
        before_[{setting.scope, name}].push_back(std::move(setting));
    after_ = before_;
    for (const auto& edit : changes.settings) editSetting(edit);
    fleetAfter_ = fleetBefore_;
    for (const auto& edit : changes.groups) editGroup(edit);
    std::set<Member> members(fleetBefore_.members.begin(), fleetBefore_.members.end());
    for (const auto& edit : changes.members) {
      members.erase(edit.member);
      if (edit.isMember) members.insert(edit.member);
    }
    fleetAfter_.members.assign(members.begin(), members.end());
    for (const auto& [client, isWithdrawn] : changes.withdrawals) {
      fleetAfter_.withdrawn.erase(client);
      if (isWithdrawn) fleetAfter_.withdrawn.insert(client);
    }
    for (const auto& added : changes.newClients) fleetAfter_.clients.push_back(added.client);
    removed_.insert(changes.removedClients.begin(), changes.removedClients.end());
    std::erase_if(fleetAfter_.clients, [this](const Client& client) { return removed_.contains(client.id); });
  }

  // With a group goes who was in it and what was said to it, and with a machine what was said to it.
  void endWithGroups(ChangeSet& changes) {
    std::vector<std::string> scopes;
    for (const std::int64_t id : changes.removedClients) scopes.push_back(machineScope(id));
    for (const auto& edit : changes.groups) {
      if (edit.number) continue;
      scopes.push_back(groupScope(edit.name));
      for (const Member& member : fleetBefore_.members)
        if (member.group == edit.name) changes.members.push_back({member, false});
    }
    for (const std::string& scope : scopes)
      for (const Setting& setting : settingsOf(session_, scope, revision_))
        changes.withdraw(scope, setting.identity);
  }

  static std::set<std::string> touchedGroups(const ChangeSet& changes) {
    std::set<std::string> groups;
    for (const auto& edit : changes.groups) groups.insert(edit.name);
    for (const auto& edit : changes.members) groups.insert(edit.member.group);
    return groups;
  }

  static std::set<std::string> touchedScopes(const ChangeSet& changes) {
    std::set<std::string> scopes;
    for (const auto& edit : changes.settings) scopes.insert(edit.scope);
    for (const std::string& group : touchedGroups(changes)) scopes.insert(groupScope(group));
    return scopes;
  }

  const Setting* find(const TouchedSettings& settings, const std::string& scope,
                      const Identity& identity) const {
    const auto said = settings.find({scope, identity.name});
    if (said == settings.end()) return nullptr;
    const auto found =
        std::find_if(said->second.begin(), said->second.end(),
                     [&identity](const Setting& setting) { return setting.identity == identity; });
    return found == said->second.end() ? nullptr : &*found;
  }

  void editSetting(const ChangeSet::SettingEdit& edit) {
    std::vector<Setting>& said = after_[{edit.scope, edit.identity.name}];
    std::erase_if(said, [&edit](const Setting& setting) { return setting.identity == edit.identity; });
    if (edit.after) said.push_back(*edit.after);
  }

  void editGroup(const ChangeSet::GroupEdit& edit) {
    std::erase_if(fleetAfter_.groups, [&edit](const Group& group) { return group.name == edit.name; });
    if (edit.number) fleetAfter_.groups.push_back({edit.name, *edit.number});
  }

  void dropWhatIsSo(ChangeSet& changes) {
    std::erase_if(changes.settings, [this](const ChangeSet::SettingEdit& edit) {
      const Setting* const is = find(before_, edit.scope, edit.identity);
      return edit.after ? is != nullptr && is->saysAs(*edit.after) : is == nullptr;
    });
    std::erase_if(changes.groups, [this](const ChangeSet::GroupEdit& edit) {
      const auto is = std::find_if(fleetBefore_.groups.begin(), fleetBefore_.groups.end(),
                                   [&edit](const Group& group) { return group.name == edit.name; });
      return is == fleetBefore_.groups.end() ? !edit.number : edit.number == is->number;
    });
    std::erase_if(changes.withdrawals, [this](const ChangeSet::Withdrawal& edit) {
      return fleetBefore_.withdrawn.contains(edit.client) == edit.isWithdrawn;
    });
    const std::set<Member> members(fleetBefore_.members.begin(), fleetBefore_.members.end());
    std::erase_if(changes.members, [&members](const ChangeSet::MemberEdit& edit) {
      return members.contains(edit.member) == edit.isMember;
    });
  }

  // Nobody may have changed what this edits since the person looked at it.
  CWmError checkExpected(const ChangeSet& changes) {
    if (!note_.expected) return {};
    std::string later;
    for (const std::string& scope : touchedScopes(changes)) {
      std::int64_t touched = 0;
      session_ << "SELECT touched FROM scopes WHERE scope = :scope", use(scope), into(touched);
      if (touched <= *note_.expected) continue;
      const auto revision = findRevision(session_, touched);
      later += (later.empty() ? "" : "; ") + std::string("revision ") + std::to_string(touched) +
               (revision ? " of " + revision->who + " (" + revision->command + ")" : std::string());
    }
    if (later.empty()) return {};
    return refused("somebody was faster: " + later + " came after revision " +
                   std::to_string(*note_.expected) +
                   "; look again with \"overhub log\", and repeat it with the newest revision");
  }

  CWmError checkGroups() {
    std::map<std::int64_t, std::string> byNumber;
    for (const Group& group : fleetAfter_.groups) {
      const auto [other, isFree] = byNumber.try_emplace(group.number, group.name);
      if (!isFree) {
        return refused("the groups " + other->second + " and " + group.name + " would both have the number " +
                       std::to_string(group.number) +
                       "; it decides which of them counts, so each group has one of its own");
      }
    }
    std::set<std::string> names;
    for (const Group& group : fleetAfter_.groups) names.insert(group.name);
    for (const Member& member : fleetAfter_.members) {
      if (!names.contains(member.group))
        return refused("there is no group \"" + member.group +
                       R"("; "overhub groups" lists those there are)");
    }
    return {};
  }

  // Also where no machine gets it now: one may tomorrow.
  void noteWayBack(const ChangeSet& changes, Effects& effects) const {
    for (const auto& edit : changes.settings) {
      const Setting* const was = find(before_, edit.scope, edit.identity);
      if (removed_.contains(clientOfScope(edit.scope))) continue;
      for (const Setting* const setting : {was, edit.after ? &*edit.after : nullptr}) {
        if (setting != nullptr && programs::isWayBack(recordOf(*setting)))
          effects.wayBackValue = "\"" + edit.identity.name + "\" in \"" + setting->path + "\"";
      }
      if (edit.after && edit.after->expires != 0 && programs::isWayBack(recordOf(*edit.after)))
        effects.endingWayBack = effects.wayBackValue;
    }
  }

  CWmError checkEffects(const Effects& effects) const {
    if (!effects.conflict.empty()) return refused(effects.conflict);
    if (!effects.endingWayBack.empty()) {
      return refused(
          effects.endingWayBack +
          " is what a client needs to come back to its server, and at its end nothing would be in its "
          "place; set it without --until");
    }
    if (effects.wayBackValue.empty() || note_.isForced || note_.isDryRun) return {};
    return refused(
        effects.wayBackValue +
        " is what a client needs to come back to its server: a mistake in it, and nobody reaches the "
        "machine from here again (" +
        std::to_string(effects.wayBack.size()) +
        " machines would get another one). --force does it all the same, --dry-run shows it");
  }

  void touchScope(const std::string& scope, bool saysSomethingElse) {
    const std::int64_t said = saysSomethingElse ? revision_ : 0;
    session_ << "INSERT INTO scopes (scope, touched, said) VALUES (:scope, :revision, :said) ON CONFLICT"
                " (scope) DO UPDATE SET touched = excluded.touched, said = CASE WHEN excluded.said = 0 THEN"
                " scopes.said ELSE excluded.said END",
        use(scope, "scope"), use(revision_, "revision"), use(said, "said");
  }

  CWmError addClients(ChangeSet& changes, ChangeResult& result) {
    std::int64_t highest = 0;
    session_ << "SELECT value FROM counters WHERE name = :name", use(kClientIdCounter), into(highest);
    const std::int64_t before = highest;
    for (ChangeSet::NewClient& wanted : changes.newClients) {
      Client& client = wanted.client;
      if (client.id == 0) {
        if (highest == kOpen) return refused("the highest id is in use; choose a free one with --id");
        client.id = highest + 1;
      }
      highest = std::max(highest, client.id);
      client.validFrom = revision_;
      addClient(session_, client, wanted.protectedKey);
      result.newClients.push_back(client);
    }
    if (highest != before)
      session_ << "UPDATE counters SET value = :value WHERE name = :name", use(highest),
          use(kClientIdCounter);
    return {};
  }

  soci::session& session_;
  const ChangeNote& note_;
  std::int64_t revision_;
  std::int64_t now_;  // by the store's clock
  std::set<std::string> names_;
  std::set<std::int64_t> removed_;  // clients
  TouchedSettings before_;
  TouchedSettings after_;
  Fleet fleetBefore_;
  Fleet fleetAfter_;
};

}  // namespace

bool ChangeSet::isEmpty() const {
  return settings.empty() && groups.empty() && members.empty() && newClients.empty() &&
         removedClients.empty() && withdrawals.empty();
}

std::int64_t newestRevision(soci::session& session) {
  std::int64_t revision = 0;
  session << "SELECT value FROM counters WHERE name = :name", use(kRevisionCounter), into(revision);
  return revision;
}

CWmError makeChange(const Database& database, const ChangeNote& note, const ChangeBuilder& build,
                    ChangeResult& result) {
  const std::string operation = newSessionKeyHex();  // as random as an operation has to be
  bool isLeft = false;                               // weighed, and there is nothing to write
  CWmError error = database.writeOnce([&](soci::session& session) -> CWmError {
    isLeft = false;
    takeTurn(session);
    if (const std::int64_t done = revisionOf(session, operation); done != 0) {
      result.revision = done;
      return {};
    }
    const std::int64_t revision = takeRevision(session);
    result = ChangeResult();
    ChangeSet changes;
    CWmError fault = build(session, changes);
    if (fault.IsError()) return fault;
    Attempt attempt(session, note, revision, database.now(session));
    fault = attempt.weighAll(changes, result);
    if (fault.IsError()) return fault;
    isLeft = result.isNothing || note.isDryRun;
    if (isLeft) return refused("nothing is written");
    result.revision = revision;
    return attempt.write(changes, operation, result);
  });
  if (isLeft) return {};
  if (error.IsError()) result = ChangeResult();
  if (error.GetCode() != kLqErrConnectionLost) return error;
  return {kLqErrConnectionLost, std::string(error.AsString()) +
                                    "; whether the change was made is not known, \"overhub log\" tells"};
}
