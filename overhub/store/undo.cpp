#include "overhub/store/undo.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "overhub/store/history.h"
#include "overhub/store/later_changes.h"
#include "overhub/store/scope.h"

namespace {

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

std::string listed(const std::vector<std::string>& names) {
  constexpr std::size_t kNamed = 5;
  std::string text;
  for (std::size_t i = 0; i < std::min(names.size(), kNamed); ++i) text += (i == 0 ? "" : ", ") + names[i];
  return names.size() > kNamed ? text + " and " + std::to_string(names.size() - kNamed) + " more" : text;
}

// Puts one revision back.
class Undo {
 public:
  Undo(soci::session& session, std::int64_t revision, ChangeSet& changes)
      : session_(session), revision_(revision), changes_(changes), later_(session, revision) {}

  CWmError build(LeftOut& leftOut) {
    const std::int64_t newest = newestRevision(session_);
    if (!findRevision(session_, revision_))
      return refused("there is no revision " + std::to_string(revision_) + "; the newest is " +
                     std::to_string(newest));
    for (const Group& group : groupsAt(session_, newest)) groups_.insert(group.name);
    auto made = changesOf(session_, revision_ - 1, revision_);
    const Differences& differences = made[revision_];
    putBackClients(differences);
    for (const GroupDifference& group : differences.groups) putBack(group);
    for (const MemberDifference& member : differences.members) putBack(member);
    for (const SettingDifference& setting : differences.settings) putBack(setting);
    leftOut = leftOutText();
    if (!refusedFor_.empty()) return refused(laterText());
    if (changes_.isEmpty() && !leftOut.empty())
      return refused("there is nothing of revision " + std::to_string(revision_) +
                     " to put back: " + leftOut);
    return {};
  }

 private:
  // Keeps it for the refusal when a later revision has been at it.
  bool isChangedLater(std::int64_t revision, const std::string& what) {
    if (revision != 0) refusedFor_.try_emplace(revision, what);
    return revision != 0;
  }

  void putBackClients(const Differences& differences) {
    for (const auto& [client, kind] : differences.clients) {
      using Kind = ClientDifference::Kind;
      if (kind == Kind::added) {
        added_.push_back(client.name);
      } else if (kind == Kind::removed) {
        removed_.push_back(client.name);
        removedIds_.insert(client.id);
      } else if (!isChangedLater(later_.ofClient(client.id), "client " + client.name)) {
        changes_.withdrawals.push_back({client.id, kind == Kind::takenBack});
      }
    }
  }

  void putBack(const GroupDifference& group) {
    const std::string what = "group " + group.name;
    if (isChangedLater(later_.ofGroup(group.name), what)) return;
    // With a group goes what is in it, also what came later.
    if (!group.before && isChangedLater(later_.inGroup(group.name), what)) return;
    changes_.groups.push_back({group.name, group.before});
  }

  // What goes into a group needs it.
  bool isGroupGone(const std::string& group) {
    return !groups_.contains(group) && isChangedLater(later_.ofGroup(group), "group " + group);
  }

  void putBack(const MemberDifference& difference) {
    const Member& member = difference.member;
    if (isChangedLater(later_.ofMember(member), member.pattern + " in group " + member.group)) return;
    if (!difference.isMember && isGroupGone(member.group)) return;
    changes_.members.push_back({member, !difference.isMember});
  }

  void putBack(const SettingDifference& setting) {
    const std::int64_t client = clientOfScope(setting.scope);
    if (removedIds_.contains(client)) return;
    const std::string what = "\"" + setting.identity.name + "\" in \"" + setting.identity.place + "\"";
    if (isChangedLater(later_.ofSetting(setting.scope, setting.identity), what)) return;
    if (const std::string group = groupOfScope(setting.scope);
        !group.empty() && setting.before && isGroupGone(group))
      return;
    if (client != 0 && !isClient(client) && isChangedLater(later_.ofClient(client), "its machine")) return;
    changes_.settings.push_back({setting.scope, setting.identity, setting.before});
  }

  bool isClient(std::int64_t id) {
    if (clients_.empty())
      for (const Client& client : allClients(session_)) clients_.insert(client.id);
    return clients_.contains(id);
  }

  std::string laterText() const {
    const auto& [number, what] = *refusedFor_.rbegin();
    return namedRevision(session_, number) + " has changed " + what + " after revision " +
           std::to_string(revision_) + "; undo that one first, or set what is wanted";
  }

  std::string leftOutText() const {
    std::string text;
    if (!added_.empty())
      text =
          "the clients that it added stay (" + listed(added_) + "); \"overhub remove-client\" removes them";
    if (!removed_.empty())
      text += (text.empty() ? "" : "; ") + std::string("the clients that it removed stay away (") +
              listed(removed_) + "), with what was set for them; \"overhub add-client\" adds them anew";
    return text;
  }

  soci::session& session_;
  std::int64_t revision_;
  ChangeSet& changes_;
  LaterChanges later_;
  // By which revision it is refused, and about what. The newest is told, being the first to be put back.
  std::map<std::int64_t, std::string> refusedFor_;
  std::set<std::string> groups_;
  std::set<std::int64_t> clients_;  // those there are, once somebody asked
  std::vector<std::string> added_;
  std::vector<std::string> removed_;
  std::set<std::int64_t> removedIds_;
};

}  // namespace

CWmError buildUndo(soci::session& session, std::int64_t revision, ChangeSet& changes, LeftOut& leftOut) {
  return Undo(session, revision, changes).build(leftOut);
}
