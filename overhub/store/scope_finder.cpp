#include "overhub/store/scope_finder.h"

#include <algorithm>

#include "overhub/store/scope.h"

ScopeFinder::ScopeFinder(const std::vector<Group>& groups, const std::vector<Member>& members) {
  for (const Group& group : groups) numbers_[group.name] = group.number;
  for (const Member& member : members) {
    if (isPattern(member.pattern)) {
      patterns_.push_back(member);
    } else {
      byName_[member.pattern].push_back(member.group);
    }
  }
}

std::vector<std::string> ScopeFinder::groupsOf(const Client& client) const {
  std::vector<std::pair<std::int64_t, std::string>> found;
  const auto add = [&](const std::string& name) {
    const auto number = numbers_.find(name);
    if (number != numbers_.end()) found.emplace_back(number->second, name);
  };
  if (const auto named = byName_.find(client.name); named != byName_.end())
    for (const std::string& group : named->second) add(group);
  for (const Member& member : patterns_)
    if (isMeantBy(member.pattern, client.name)) add(member.group);
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  std::vector<std::string> names;
  names.reserve(found.size());
  for (auto& group : found) names.push_back(std::move(group.second));
  return names;
}

std::vector<std::string> ScopeFinder::scopesOf(const Client& client) const {
  if (withdrawn_.contains(client.id)) return {};
  std::vector<std::string> scopes{kAllScope};
  for (const std::string& group : groupsOf(client)) scopes.push_back(groupScope(group));
  scopes.push_back(machineScope(client.id));
  return scopes;
}
