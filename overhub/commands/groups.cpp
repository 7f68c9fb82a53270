// `overhub groups`, `add-group`, `remove-group`, `join-group` and `leave-group`: groups of machines.
#include <algorithm>
#include <memory>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/client_name.h"

namespace {

constexpr const char* kMemberFooter =
    R"(A member is a client's name, or a live pattern, which takes in machines that are added later as well.

Examples:
  overhub join-group berlin web-1 db-7
  overhub join-group web 'web-*' --dry-run)";

struct GroupCommand {
  std::string name;
  std::int64_t number = 0;
  std::vector<std::string> members;
  ChangeOptions change;
};

// Without the mark that targets have.
std::string plain(const std::string& name) {
  return name.starts_with('@') ? name.substr(1) : name;
}

std::vector<Group> groupsNow(soci::session& session) {
  return groupsAt(session, newestRevision(session));
}

bool isGroup(soci::session& session, const std::string& name) {
  const auto groups = groupsNow(session);
  return std::any_of(groups.begin(), groups.end(),
                     [&name](const Group& group) { return group.name == name; });
}

int addGroup(const Store& store, const GroupCommand& wanted) {
  const std::string name = plain(wanted.name);
  if (!isClientName(name) || name == "all" || name == "static") {
    return complain(kExitUsage, "\"" + name +
                                    "\" cannot be a group's name: it is made like a client's, and not "
                                    "\"all\" or \"static\"");
  }
  return wanted.change.make(store, "add-group " + name + " --number " + std::to_string(wanted.number),
                            [&](soci::session&, ChangeSet& changes) {
                              changes.groups.push_back({name, wanted.number});
                              return CWmError();
                            });
}

int removeGroup(const Store& store, const GroupCommand& wanted) {
  const std::string name = plain(wanted.name);
  return wanted.change.make(store, "remove-group " + name, [&](soci::session& session, ChangeSet& changes) {
    if (!isGroup(session, name)) return CWmError(kLqErrRequestRefused, "there is no group \"" + name + "\"");
    changes.groups.push_back({name, std::nullopt});
    return CWmError();
  });
}

CWmError noMember(const std::string& member, const std::string& group) {
  return {kLqErrRequestRefused, "\"" + member + "\" is no member of " + group +
                                    "; who is there by a pattern leaves with it, see \"overhub groups\""};
}

CWmError buildMembers(soci::session& session, const GroupCommand& wanted, bool isMember, ChangeSet& changes) {
  const std::string name = plain(wanted.name);
  const auto members = membersAt(session, newestRevision(session));
  for (const std::string& member : wanted.members) {
    if (isMember && !isMemberName(member))
      return {kLqErrArgument,
              "\"" + member + "\" is neither a client's name nor a pattern of one, such as web-*"};
    if (isMember && !isPattern(member)) {
      Client client;
      if (CWmError error = oneClient(session, member, client); error.IsError()) return error;
    }
    const bool isThere = std::find(members.begin(), members.end(), Member{name, member}) != members.end();
    if (!isMember && !isThere) {
      return noMember(member, name);
    }
    changes.members.push_back({{name, member}, isMember});
  }
  return {};
}

int changeMembers(const Store& store, const GroupCommand& wanted, const char* command, bool isMember) {
  std::string text = std::string(command) + " " + plain(wanted.name);
  for (const std::string& member : wanted.members) text += " " + member;
  return wanted.change.make(store, text, [&](soci::session& session, ChangeSet& changes) {
    return buildMembers(session, wanted, isMember, changes);
  });
}

struct Groups {
  Listing list{"groups",
               {{"NUMBER", "number", Listing::Kind::number},
                {"NAME", "name", Listing::Kind::text},
                {"MACHINES", "machines", Listing::Kind::number},
                {"MEMBERS", "members", Listing::Kind::text}}};
};

CWmError list(soci::session& session, Listing& list) {
  std::vector<Member> members = membersAt(session, newestRevision(session));
  std::sort(members.begin(), members.end());
  for (const Group& group : groupsNow(session)) {
    std::vector<Client> clients;
    CWmError error = clientsOfTarget(session, "@" + group.name, clients);
    if (error.IsError()) return error;
    std::string named;
    for (const Member& member : members)
      if (member.group == group.name) named += (named.empty() ? "" : " ") + member.pattern;
    list.addRow({group.number, group.name, clients.size(), named});
  }
  list.sortBy("number");
  return {};
}

int groups(const Store& store, Groups& wanted) {
  const Listing empty = wanted.list;
  const CWmError error = store.database().read([&](soci::session& session) {
    wanted.list = empty;
    return list(session, wanted.list);
  });
  if (error.IsError()) return storeFailed(error);
  print(wanted.list.output());
  return kExitOk;
}

}  // namespace

void addGroups(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Groups>();
  auto options = line.add("groups", "List the groups, the one that counts least first",
                          onStore(place, [wanted](const Store& store) { return groups(store, *wanted); }));
  wanted->list.describe(options);
}

void addAddGroup(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<GroupCommand>();
  auto options =
      line.add("add-group", "Make a group of machines, or give one another number",
               onMadeStore(place, [wanted](const Store& store) { return addGroup(store, *wanted); }));
  options.required("NAME", wanted->name, "The group's name, made like a client's")
      .required("--number N", wanted->number,
                "Of a machine's groups the one with the higher number counts; each has one of its own");
  wanted->change.describe(options);
}

void addRemoveGroup(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<GroupCommand>();
  auto options =
      line.add("remove-group", "Remove a group, with what is set for it",
               onStore(place, [wanted](const Store& store) { return removeGroup(store, *wanted); }));
  options.required("NAME", wanted->name, "The group's name");
  wanted->change.describe(options);
}

void addJoinGroup(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<GroupCommand>();
  auto options =
      line.add("join-group", "Put machines into a group", onStore(place, [wanted](const Store& store) {
                 return changeMembers(store, *wanted, "join-group", true);
               }));
  options.required("GROUP", wanted->name, "The group's name")
      .required("MEMBER", wanted->members, "Clients' names and live patterns");
  wanted->change.describe(options);
  options.footer(kMemberFooter);
}

void addLeaveGroup(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<GroupCommand>();
  auto options =
      line.add("leave-group", "Take machines out of a group", onStore(place, [wanted](const Store& store) {
                 return changeMembers(store, *wanted, "leave-group", false);
               }));
  options.required("GROUP", wanted->name, "The group's name")
      .required("MEMBER", wanted->members, "Names and patterns, as \"groups\" lists them");
  wanted->change.describe(options);
}
