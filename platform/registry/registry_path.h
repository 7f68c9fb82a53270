// Turns the key paths that callers write into absolute ones, and checks the bounds on names.
//
// Pure functions over strings, callable from any thread; nothing here knows of the store.
#pragma once

#include <string>
#include <string_view>

#include "platform/registry/outcome.h"

namespace lqregistry {

// Resolves `key` as seen from `instance` (may be empty) into `path`: components joined by "/", none empty.
// kRegBadName, with `path` unchanged, when the path holds a NUL or is too long, or needs an instance and none
// is given.
Outcome ResolvePath(std::string_view key, std::string_view instance, std::string& path);

// kRegBadName when a value cannot have this name.
Outcome CheckValueName(std::string_view name);

// True for the root of `instance` and for the keys above every instance's root.
bool HoldsInstance(std::string_view path);

}  // namespace lqregistry
