#include "lqreg/commands/key_walk.h"

#include <list>
#include <utility>
#include <vector>

#include "lqregistry/LqRegistryFile.h"

bool walkKeys(LQPlatformInfo& registry, const std::string& root,
              const std::function<void(const WalkedKey&)>& visit) {
  const lqregistry::ReadSnapshot still;  // one registry is walked, not a mixture of what it was and became
  // Depth first with a list of its own: keys nest deeper than a stack of calls should.
  std::vector<WalkedKey> pending(1);
  pending.back().path = root;
  while (!pending.empty()) {
    WalkedKey current = std::move(pending.back());
    pending.pop_back();
    std::list<std::string> subKeys;
    if (!registry.getRegValues(current.path, current.values) || !registry.getSubKeys(current.path, subKeys))
      return false;
    visit(current);
    subKeys.reverse();
    for (const auto& name : subKeys)
      pending.push_back({current.path + '/' + name, name, current.depth + 1, {}});
  }
  return true;
}
