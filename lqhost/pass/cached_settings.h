// The Additional Settings cache as the host's reports see it: read and parsed, with the product's own rules
// on which of its records are in force.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/OBGui.h"

namespace host {

struct CachedSettings {
  OBGui::KeyList keys;       // without the setting that a refresh leaves alone
  std::size_t records = 0;   // in the file
  std::int64_t written = 0;  // when the file was written, seconds since the epoch
};

// The cache of the instance in focus; an error, with `settings` unchanged, when none can be read.
CWmError readCachedSettings(CachedSettings& settings);

// Removes the cache from this base directory; sets `wasThere` when there was one. It takes the pass lock,
// because a refresh under way would write what it has read back, and an error says so when that is not held.
CWmError dropCachedSettings(const LqPassLock& lock, const std::string& base, bool& wasThere);

}  // namespace host
