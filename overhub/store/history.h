// The history: what revisions changed, looked at and compared.
//
// Nothing in the store is overwritten, so what a revision changed is what differs between the state before it
// and its own, and two revisions differ in what the states of both do.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/change.h"
#include "overhub/store/database.h"
#include "overhub/store/revisions.h"

// One thing, before and after; nothing where it was not there.
struct SettingDifference {
  std::string scope;
  Identity identity;
  std::optional<Setting> before;
  std::optional<Setting> after;
};
struct GroupDifference {
  std::string name;
  std::optional<std::int64_t> before;  // its number
  std::optional<std::int64_t> after;
};
struct MemberDifference {
  Member member;
  bool isMember = false;  // after; before it was the other way round
};
struct ClientDifference {
  enum class Kind { added, removed, withdrawn, takenBack };
  Client client;
  Kind kind = Kind::added;
};

struct Differences {
  std::vector<SettingDifference> settings;  // by scope, place and name
  std::vector<GroupDifference> groups;      // by name
  std::vector<MemberDifference> members;    // by group and pattern
  std::vector<ClientDifference> clients;    // by id

  bool isEmpty() const;
  std::size_t count() const;
};

// What is different at `to` from what was at `from`; what came and went in between is not. `from` may be the
// later one.
Differences differencesBetween(soci::session& session, std::int64_t from, std::int64_t to);

// What each revision after `from`, up to `to`, changed. Those that changed nothing here are not in it.
std::map<std::int64_t, Differences> changesOf(soci::session& session, std::int64_t from, std::int64_t to);

// Of which changes a history tells.
struct HistoryFilter {
  std::optional<std::set<std::string>> scopes;  // nothing: all
  std::set<std::string> clients;                // names, whose coming, going and memberships count as well
  std::set<std::string> groups;                 // whose members all count
  std::string place;                            // empty: any, and what is no setting as well
  std::string name;                             // empty: any
};

// What a target means at any time: also machines and groups that are no more. A machine brings in the scopes
// of all groups that it was ever in, and that of all, which it may have got a value from. An error when there
// never was such a one.
CWmError filterFor(soci::session& session, const std::string& target, HistoryFilter& filter);

// Leaves what the filter does not mean out.
void keepOnly(const HistoryFilter& filter, Differences& differences);

// What a person sees of a setting before and after, secrets hidden, "(not set)" for nothing. Both differ
// whenever something does; of a secret they tell only that it was set anew.
struct ShownDifference {
  std::string before;
  std::string after;
};
ShownDifference shown(const SettingDifference& difference);

// How a person names a scope at any time: "@all", "@berlin", "pc1"; "pc1 (client 7, removed)" for one that is
// no more.
class EverScopeNames {
 public:
  explicit EverScopeNames(soci::session& session);
  std::string of(const std::string& scope) const;

 private:
  std::map<std::int64_t, std::pair<std::string, bool>> clients_;  // by id: the name, and whether it is there
};
