// A walk over a key and everything below it.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "lqregistry/LQPlatformInfo.h"

struct WalkedKey {
  std::string path;  // the walk's root and, below it, "/" and a name for each level
  std::string name;  // its last part; empty for the root
  std::size_t depth = 0;
  std::map<std::string, std::string> values;
};

// Calls `visit` for the key `root` and for each key below it, parents first, siblings ascending. False when a
// key could not be read, for which the registry object then has the error. All of it is the registry of one
// moment; `visit` waits for nobody, because the registry's log cannot be cleared before the walk has ended.
[[nodiscard]] bool walkKeys(LQPlatformInfo& registry, const std::string& root,
                            const std::function<void(const WalkedKey&)>& visit);
