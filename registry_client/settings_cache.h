// What a download does with the settings cache: what goes into it, and when it may be replaced.
#pragma once

#include <optional>
#include <string>

#include "lqregistry/LqRegistryManagerClnt.h"

// The cache's text for a reply: all but the records that were removed. Uses the reply's records up, whose
// memory the look at the old cache then has. Nothing when a protected value cannot be protected.
std::optional<std::string> settingsTextOf(OBGui::RegistryTaskResp& reply);

// Whether the cache may be replaced by the text of a reply with this many records. A cache that cannot be
// read, or that holds more records than the reply, is left as it is; a server that lost records must not
// empty it.
bool mayReplaceSettingsCache(std::size_t repliedKeys, const std::optional<std::string>& text);
