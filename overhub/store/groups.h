// Groups of machines: which there are, who is in them, and which count more.
//
// A member is a machine's name, or a live pattern such as "web-*", which takes in machines that come later as
// well. Each group has a number; of a machine's groups the one with the higher number is the nearer.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "overhub/store/database.h"

struct Group {
  std::string name;
  std::int64_t number = 0;
};

struct Member {
  std::string group;
  std::string pattern;  // or a name

  auto operator<=>(const Member&) const =
      default;  // NOLINT(modernize-use-nullptr): the check takes it for a 0
};

// Whether a member is a live pattern, and not a name.
bool isPattern(const std::string& text);
// Whether a machine of that name is meant by the pattern, or is the one named.
bool isMeantBy(const std::string& pattern, const std::string& client);

// The groups there are at a revision, and their members; both in no order.
std::vector<Group> groupsAt(soci::session& session, std::int64_t revision);
std::vector<Member> membersAt(soci::session& session, std::int64_t revision);

// A machine's scopes at a revision, the farthest first: all, its groups by their numbers, its own. None when
// everything is withdrawn from it.
std::vector<std::string> scopesOf(soci::session& session, std::int64_t clientId, const std::string& client,
                                  std::int64_t revision);

// The revisions that may have changed a machine's scopes.
std::set<std::int64_t> scopeChangesOf(soci::session& session, std::int64_t clientId,
                                      const std::string& client);

// What changes make of them, from a revision on.
void beginGroup(soci::session& session, const Group& group, std::int64_t revision);
void endGroup(soci::session& session, const std::string& name, std::int64_t revision);
void beginMember(soci::session& session, const Member& member, std::int64_t revision);
void endMember(soci::session& session, const Member& member, std::int64_t revision);
