// The scopes of any machine of a fleet, found fast: names are looked up, and only patterns are tried.
//
// For who asks about all machines at once; scopesOf() of groups.h asks the store about one. Any thread.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "overhub/store/clients.h"
#include "overhub/store/groups.h"

// Who is in which group.
struct Fleet {
  std::vector<Client> clients;
  std::vector<Group> groups;
  std::vector<Member> members;
  std::set<std::int64_t> withdrawn;  // the ids of clients from which everything is withdrawn
};

class ScopeFinder {
 public:
  explicit ScopeFinder(const Fleet& fleet) : ScopeFinder(fleet.groups, fleet.members) {
    withdrawn_ = fleet.withdrawn;
  }
  ScopeFinder(const std::vector<Group>& groups, const std::vector<Member>& members);

  // The names of its groups, the farthest first.
  std::vector<std::string> groupsOf(const Client& client) const;
  // The farthest first.
  std::vector<std::string> scopesOf(const Client& client) const;

 private:
  std::unordered_map<std::string, std::int64_t> numbers_;
  std::unordered_map<std::string, std::vector<std::string>> byName_;
  std::vector<Member> patterns_;
  std::set<std::int64_t> withdrawn_;
};
