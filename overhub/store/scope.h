// Scopes: for whom a setting is meant. Every machine has one of its own, lies in that of each of its groups,
// and in that of all; of those that say something of a value, the nearest counts.
#pragma once

#include <cstdint>
#include <string>

inline constexpr const char* kAllScope = "@all";
// The static list, which clients get that ask for it; no machine lies in it.
inline constexpr const char* kStaticScope = "@static";

// A client's scope goes by its id, which is never used again, a group's by its name.
std::string machineScope(std::int64_t clientId);
std::string groupScope(const std::string& group);

// The group of a group's scope, or empty; the id of a machine's scope, or 0.
std::string groupOfScope(const std::string& scope);
std::int64_t clientOfScope(const std::string& scope);
