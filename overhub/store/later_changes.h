// What was changed after a revision, to be asked by the thing: who puts a revision back, or expects that
// nobody was faster, must not undo what somebody else did meanwhile.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "overhub/store/history.h"

class LaterChanges {
 public:
  // What revisions after this one have changed, up to the newest.
  LaterChanges(soci::session& session, std::int64_t revision);

  // Each returns the newest revision that changed it, or 0.
  std::int64_t ofSetting(const std::string& scope, const Identity& identity) const {
    return find(settings_, {scope, identity});
  }
  std::int64_t ofGroup(const std::string& name) const { return find(groups_, name); }
  // Of anything that was said to a group, and of who is in it.
  std::int64_t inGroup(const std::string& name) const { return find(inGroups_, name); }
  std::int64_t ofMember(const Member& member) const { return find(members_, member); }
  // Whether it was added, removed, or everything withdrawn from it.
  std::int64_t ofClient(std::int64_t id) const { return find(clients_, id); }

 private:
  template <class Key>
  static std::int64_t find(const std::map<Key, std::int64_t>& changed, const Key& key) {
    const auto found = changed.find(key);
    return found == changed.end() ? 0 : found->second;
  }

  std::map<std::pair<std::string, Identity>, std::int64_t> settings_;
  std::map<std::string, std::int64_t> groups_;
  std::map<std::string, std::int64_t> inGroups_;
  std::map<Member, std::int64_t> members_;
  std::map<std::int64_t, std::int64_t> clients_;
};

// How a refusal names a revision that was later: "revision 7 of somebody (set web-1 ~/Limits nMAX)".
std::string namedRevision(soci::session& session, std::int64_t revision);
