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
    ++size_;
    auto& group = groups_[name];
    bySize_.erase({group.size(), name});
    group.insert(caller);
    bySize_.insert({group.size(), name});
  }

  void remove(const std::string& name, CallerNumber caller) {
    const auto found = groups_.find(name);
    if (found == groups_.end()) return;
    bySize_.erase({found->second.size(), name});
    size_ -= found->second.erase(caller);
    if (found->second.empty()) {
      groups_.erase(found);
    } else {
      bySize_.insert({found->second.size(), name});
    }
  }

  // Members of all groups.
  std::size_t size() const { return size_; }

  // The group with the most members, oldest first; empty when there is none.
  const std::set<CallerNumber>& largest() const {
    static const std::set<CallerNumber> none;
    return bySize_.empty() ? none : groups_.at(bySize_.rbegin()->second);
  }

 private:
  std::size_t size_ = 0;
  std::map<std::string, std::set<CallerNumber>> groups_;
  std::set<std::pair<std::size_t, std::string>> bySize_;
};
