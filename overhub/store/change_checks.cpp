#include "overhub/store/change_checks.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "common/machine_identity.h"
#include "overhub/store/later_changes.h"
#include "overhub/store/scope.h"

namespace {

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

// The revisions that have been at something of a change, each with the first thing.
class Overtaken {
 public:
  Overtaken(soci::session& session, std::int64_t expected, const ChangePlan& plan, const ChangeSet& changes)
      : session_(session), later_(session, expected), names_(session) {
    for (const auto& edit : changes.settings) {
      note(later_.ofSetting(edit.scope, edit.identity), [&] {
        return "\"" + edit.identity.name + "\" in \"" + edit.identity.place + "\" is " +
               shownInFull(findSaid(plan.before, edit.scope, edit.identity)) + " for " +
               names_.of(edit.scope) + " now";
      });
    }
    for (const auto& edit : changes.groups) noteGroup(edit.name);
    for (const auto& [member, isMember] : changes.members) {
      noteGroup(member.group);  // into which it goes, or from which
      note(later_.ofMember(member), [&member = member, isMember = isMember] {
        return member.pattern + " is " + (isMember ? "no longer" : "now") + " in group " + member.group;
      });
    }
    for (const auto& edit : changes.withdrawals) noteClient(edit.client);
    for (const std::int64_t id : changes.removedClients) noteClient(id);
  }

  bool isEmpty() const { return revisions_.empty(); }

  // The newest of them; of many a person looks at the log anyhow.
  std::string text() const {
    constexpr std::size_t kNamed = 3;
    std::string text;
    std::size_t count = 0;
    for (auto it = revisions_.rbegin(); it != revisions_.rend() && count < kNamed; ++it, ++count)
      text += (text.empty() ? "" : "; ") + namedRevision(session_, it->first) + ", " + it->second;
    return revisions_.size() == count
               ? text
               : text + "; and " + std::to_string(revisions_.size() - count) + " more revisions";
  }

 private:
  template <class What>
  void note(std::int64_t revision, const What& what) {
    if (revision != 0 && !revisions_.contains(revision)) revisions_.emplace(revision, what());
  }
  void noteGroup(const std::string& name) {
    note(later_.ofGroup(name), [&name] { return "group " + name; });
  }
  void noteClient(std::int64_t id) {
    note(later_.ofClient(id), [this, id] { return "client " + names_.of(machineScope(id)); });
  }

  soci::session& session_;
  LaterChanges later_;
  EverScopeNames names_;
  std::map<std::int64_t, std::string> revisions_;
};

}  // namespace

CWmError checkExpected(soci::session& session, std::int64_t expected, const ChangePlan& plan,
                       const ChangeSet& changes) {
  const Overtaken overtaken(session, expected, plan, changes);
  if (overtaken.isEmpty()) return {};
  return refused("somebody was faster: after revision " + std::to_string(expected) + " came " +
                 overtaken.text() + "; \"overhub diff " + std::to_string(expected) +
                 "\" shows all that changed since");
}

CWmError checkGroups(const Fleet& fleet) {
  std::map<std::int64_t, std::string> byNumber;
  for (const Group& group : fleet.groups) {
    const auto [other, isFree] = byNumber.try_emplace(group.number, group.name);
    if (!isFree) {
      return refused("the groups " + other->second + " and " + group.name + " would both have the number " +
                     std::to_string(group.number) +
                     "; it decides which of them counts, so each group has one of its own");
    }
  }
  std::set<std::string> names;
  for (const Group& group : fleet.groups) names.insert(group.name);
  for (const Member& member : fleet.members) {
    if (!names.contains(member.group))
      return refused("there is no group \"" + member.group + R"("; "overhub groups" lists those there are)");
  }
  return {};
}

void noteUnheard(const ChangePlan& plan, const ChangeSet& changes, Effects& effects) {
  std::set<Identity> heard;
  for (const Effect& effect : effects.values) heard.insert(effect.identity);
  const std::set<std::int64_t> removed(changes.removedClients.begin(), changes.removedClients.end());
  std::set<std::tuple<Identity, std::string, std::string>> unheard;
  for (const auto& edit : changes.settings) {
    if (heard.contains(edit.identity) || removed.contains(clientOfScope(edit.scope))) continue;
    unheard.emplace(edit.identity, shownInFull(findSaid(plan.before, edit.scope, edit.identity)),
                    shownInFull(edit.after ? &*edit.after : nullptr));
  }
  for (const auto& [identity, before, after] : unheard)
    effects.values.push_back({identity, before, after, 0});
  std::stable_sort(effects.values.begin(), effects.values.end(),
                   [](const Effect& a, const Effect& b) { return a.identity < b.identity; });
}

void noteWayBack(const ChangePlan& plan, const ChangeSet& changes, Effects& effects) {
  const std::set<std::int64_t> removed(changes.removedClients.begin(), changes.removedClients.end());
  for (const auto& edit : changes.settings) {
    const Setting* const was = findSaid(plan.before, edit.scope, edit.identity);
    if (removed.contains(clientOfScope(edit.scope))) continue;
    for (const Setting* const setting : {was, edit.after ? &*edit.after : nullptr}) {
      if (setting != nullptr && programs::isWayBack(recordOf(*setting)))
        effects.wayBackValue = "\"" + edit.identity.name + "\" in \"" + setting->path + "\"";
    }
    if (edit.after && edit.after->expires != 0 && programs::isWayBack(recordOf(*edit.after)))
      effects.endingWayBack = effects.wayBackValue;
  }
}

CWmError checkEffects(const Effects& effects, const ChangeNote& note) {
  if (!effects.conflict.empty()) return refused(effects.conflict);
  if (!effects.endingWayBack.empty()) {
    return refused(
        effects.endingWayBack +
        " is what a client needs to come back to its server, and at its end nothing would be in its "
        "place; set it without --until");
  }
  if (!effects.doubled.empty() && !note.isForced && !note.isDryRun)
    return refused(effects.doubled + "; write \"~\" for both, or --force if that is another instance");
  if (effects.wayBackValue.empty() || note.isForced || note.isDryRun) return {};
  return refused(
      effects.wayBackValue +
      " is what a client needs to come back to its server: a mistake in it, and nobody reaches the "
      "machine from here again (" +
      std::to_string(effects.wayBack.size()) + (effects.wayBack.size() == 1 ? " machine" : " machines") +
      " would get another one). --force does it all the same, --dry-run shows it");
}
