#include "lqreg/commands/key_walk.h"

#include <list>
#include <utility>
#include <vector>

bool walkKeys(LQPlatformInfo& registry, const std::string& root,
              const std::function<void(const WalkedKey&)>& visit) {
  // Depth first with a list of its own: keys nest deeper than a stack of calls should.
  std::vector<WalkedKey> pending(1);
  pending.back().path = root;
  while (!pending.empty()) {
    WalkedKey current = std::move(pending.back());
    pending.pop_back();
    std::list<std::string> subKeys;
    if (!registry.getRegValues(current.path, current.values) || !registry.getSubKeys(current.path, subKeys)) {
      // A key that somebody removed in the meantime belongs to the tree no more.
      if (current.depth != 0 && registry.getRegError() == kRegKeyMissing) continue;
      return false;
    }
    visit(current);
    subKeys.reverse();
    for (const auto& name : subKeys)
      pending.push_back({current.path + '/' + name, name, current.depth + 1, {}});
  }
  return true;
}
