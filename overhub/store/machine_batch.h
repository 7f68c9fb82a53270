// What a machine gets: the settings of its scopes merged, and what it should no longer hold, as one batch.
//
// Pure computation, so that it can be looked at without a store.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "overhub/store/setting.h"

// What counts for one value of a machine, after all its scopes were heard.
struct Effective {
  Setting setting;
  bool isExpired = false;  // its time has come, and nothing farther takes its place
};

using EffectiveSettings = std::map<Identity, Effective>;

// Merges what the scopes say, the farthest first. The nearest counts, with its expiry or without one: a value
// and its expiry come from the same scope. One whose time has come counts only where no other scope has
// something to say.
EffectiveSettings effectiveSettings(const std::vector<std::vector<Setting>>& scopes, std::int64_t now);

// Clients end a value by name alone: when the time of X comes in one key, X ends in all keys. So a batch in
// which X ends here and stays there cannot be handed out. Says which, or nothing.
std::string expiryConflict(const EffectiveSettings& settings);

// An absolute path into an instance is another key than one below "~" for the server, and the same one on a
// machine whose instance it is: there the batch would hold one value twice. Says which, or nothing.
std::string doubledValue(const EffectiveSettings& settings);

// What a machine, or its cache, may hold of an earlier batch.
struct MayHold {
  std::string path;
  bool wasLive = false;  // otherwise it was switched off, which is in the cache only
  bool hasExpiry = false;
  // Withdrawn before it was doubted what the machine holds, and something that it needs to come back to its
  // server: it may have been joined anew since, with a value of its own, which stays.
  bool isLeft = false;
};

using HeldSettings = std::map<Identity, MayHold>;

// Adds what a machine may hold because one of its scopes said so; what that one removed is neither there nor
// in the cache. More than it really holds, where a nearer scope removed it, does no harm: it is gone already.
// `doubted` is the revision at which it was last doubted what the machine holds.
void addHeld(const Setting& setting, std::int64_t doubted, HeldSettings& held);

// The batch: first what is to go, then what is to be. All that an earlier batch may have left in the client's
// cache is in it, as a value or as a removal; for a batch with fewer records than the cache the client keeps
// the old one. With `atLeast`, removals of what nobody has fill it up to that many records.
OBGui::KeyList batchOf(const EffectiveSettings& settings, const HeldSettings& held, std::size_t atLeast);
