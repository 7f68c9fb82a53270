// What a download does with the settings cache: when it may be replaced, and what goes into it.
#pragma once

#include "lqregistry/LqRegistryManagerClnt.h"

// Whether the cache may be replaced by a reply with this many records. A cache that cannot be read, or that
// holds more records than the reply, is left as it is; a server that lost records must not empty it.
bool mayReplaceSettingsCache(std::size_t repliedKeys);

// Replaces the cache by the reply without the records that were removed, which uses the reply up. One that
// cannot be written is told in the log, under this tag.
void storeSettingsCache(LqRegistryManagerClnt& client, OBGui::RegistryTaskResp& reply, const char* tag);
