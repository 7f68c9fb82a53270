#include "overhub/store/groups.h"

#include <fnmatch.h>

#include <algorithm>

#include "overhub/store/clients.h"
#include "overhub/store/query.h"
#include "overhub/store/schema.h"
#include "overhub/store/scope.h"

namespace {

using soci::into;
using soci::use;

void order(std::vector<Group>& groups) {
  std::sort(groups.begin(), groups.end(), [](const Group& a, const Group& b) { return a.number < b.number; });
}

}  // namespace

bool isPattern(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

bool isMeantBy(const std::string& pattern, const std::string& client) {
  return isPattern(pattern) ? ::fnmatch(pattern.c_str(), client.c_str(), FNM_NOESCAPE) == 0
                            : pattern == client;
}

std::vector<Group> groupsAt(soci::session& session, std::int64_t revision) {
  std::vector<Group> groups;
  Group row;
  forEachRow(
      session, "SELECT name, number FROM machine_groups WHERE valid_from <= :revision AND valid_to > :at",
      [&] { groups.push_back(row); }, into(row.name), into(row.number), use(revision, "revision"),
      use(revision, "at"));
  return groups;
}

std::vector<Member> membersAt(soci::session& session, std::int64_t revision) {
  std::vector<Member> members;
  Member row;
  forEachRow(
      session, "SELECT machine_group, pattern FROM members WHERE valid_from <= :revision AND valid_to > :at",
      [&] { members.push_back(row); }, into(row.group), into(row.pattern), use(revision, "revision"),
      use(revision, "at"));
  return members;
}

std::vector<std::string> scopesOf(soci::session& session, std::int64_t clientId, const std::string& client,
                                  std::int64_t revision) {
  if (isWithdrawn(session, clientId, revision)) return {};
  std::vector<Group> groups;
  Group row;
  std::string pattern;
  const auto keep = [&] {
    const bool isNew = std::none_of(groups.begin(), groups.end(),
                                    [&row](const Group& group) { return group.name == row.name; });
    if (isNew && isMeantBy(pattern, client)) groups.push_back(row);
  };
  // Names by their index, so that a machine's pass costs the same however many members there are; patterns
  // all, since they are few.
  const std::string select =
      "SELECT g.name, g.number, m.pattern FROM members m JOIN machine_groups g ON g.name = m.machine_group"
      " AND g.valid_from <= :since AND g.valid_to > :until"
      " WHERE m.valid_from <= :revision AND m.valid_to > :at AND ";
  forEachRow(session, select + "m.is_live = 0 AND m.pattern = :client", keep, into(row.name),
             into(row.number), into(pattern), use(revision, "since"), use(revision, "until"),
             use(revision, "revision"), use(revision, "at"), use(client, "client"));
  forEachRow(session, select + "m.is_live = 1", keep, into(row.name), into(row.number), into(pattern),
             use(revision, "since"), use(revision, "until"), use(revision, "revision"), use(revision, "at"));
  order(groups);
  std::vector<std::string> scopes{kAllScope};
  for (const Group& group : groups) scopes.push_back(groupScope(group.name));
  scopes.push_back(machineScope(clientId));
  return scopes;
}

std::set<std::int64_t> scopeChangesOf(soci::session& session, std::int64_t clientId,
                                      const std::string& client) {
  std::set<std::int64_t> changes;
  std::string pattern;
  std::int64_t from[2] = {0, 0};
  std::int64_t to[2] = {0, 0};
  const auto keep = [&] {
    if (!isMeantBy(pattern, client)) return;
    changes.insert(std::begin(from), std::end(from));
    changes.insert(std::begin(to), std::end(to));
  };
  forEachRow(session,
             "SELECT m.pattern, m.valid_from, m.valid_to, g.valid_from, g.valid_to FROM members m JOIN"
             " machine_groups g ON g.name = m.machine_group WHERE m.is_live = 1 OR m.pattern = :client",
             keep, into(pattern), into(from[0]), into(to[0]), into(from[1]), into(to[1]),
             use(client, "client"));
  pattern = client;
  forEachRow(session, "SELECT valid_from, valid_to FROM withdrawals WHERE client = :client", keep,
             into(from[0]), into(to[0]), use(clientId, "client"));
  return changes;
}

void beginGroup(soci::session& session, const Group& group, std::int64_t revision) {
  session
      << "INSERT INTO machine_groups (name, number, valid_from, valid_to) VALUES (:name, :number, :revision,"
         " :open)",
      use(group.name, "name"), use(group.number, "number"), use(revision, "revision"), use(kOpen, "open");
}

void endGroup(soci::session& session, const std::string& name, std::int64_t revision) {
  session << "UPDATE machine_groups SET valid_to = :revision WHERE name = :name AND valid_to = :open",
      use(revision, "revision"), use(name, "name"), use(kOpen, "open");
}

void beginMember(soci::session& session, const Member& member, std::int64_t revision) {
  const int isLive = isPattern(member.pattern) ? 1 : 0;
  session
      << "INSERT INTO members (machine_group, pattern, is_live, valid_from, valid_to) VALUES (:machine_group,"
         " :pattern, :is_live, :revision, :open)",
      use(member.group, "machine_group"), use(member.pattern, "pattern"), use(isLive, "is_live"),
      use(revision, "revision"), use(kOpen, "open");
}

void endMember(soci::session& session, const Member& member, std::int64_t revision) {
  session << "UPDATE members SET valid_to = :revision WHERE machine_group = :machine_group AND"
             " pattern = :pattern AND valid_to = :open",
      use(revision, "revision"), use(member.group, "machine_group"), use(member.pattern, "pattern"),
      use(kOpen, "open");
}
