// Callers sorted by what they have in common, an address or an identity.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

// Numbers are given in the order of arrival, so the first of a group is its oldest.
using CallerNumber = std::uint64_t;

class CallerGroups {
 public:
  void add(const std::string& name, CallerNumber caller) {
    auto& group = groups_[name];
    if (!group.empty()) bySize_.erase(placeOf(group));
    group.insert(caller);
    bySize_.emplace(placeOf(group), &group);
    ++size_;
  }

  void remove(const std::string& name, CallerNumber caller) {
    const auto found = groups_.find(name);
    if (found == groups_.end() || !found->second.contains(caller)) return;
    auto& group = found->second;
    bySize_.erase(placeOf(group));
    size_ -= group.erase(caller);
    if (group.empty()) {
      groups_.erase(found);
    } else {
      bySize_.emplace(placeOf(group), &group);
    }
  }

  // Members of all groups.
  std::size_t size() const { return size_; }

  // Goes through the groups of at least so many, the largest first and among equals the one with the oldest
  // member, until `take` returns true; whether it did. Only then may `take` have changed anything.
  template <class Take>
  bool anyBySize(std::size_t atLeast, Take take) const {
    for (const auto& [place, group] : bySize_) {
      if (group->size() < atLeast) return false;
      if (take(*group)) return true;
    }
    return false;
  }

 private:
  using Group = std::set<CallerNumber>;
  // Larger groups come first: sizes are counted down.
  using Place = std::pair<std::size_t, CallerNumber>;
  static Place placeOf(const Group& group) { return {~group.size(), *group.begin()}; }

  std::size_t size_ = 0;
  std::map<std::string, Group> groups_;
  std::map<Place, const Group*> bySize_;
};
