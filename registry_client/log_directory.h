// The log directory that a server takes away.
#pragma once

#include "lqregistry/LqRegistryManagerClnt.h"

// The records of a list that remove it.
OBGui::KeyList logDirectoryRemovals(const OBGui::KeyList& keys);

// The server's removal of the log directory was applied already; it ends in the default directory rather than
// in none, because a host without a log directory is a host that nobody can look into.
void resetLogDirectory(LqRegistryManagerClnt& client, const OBGui::RegistryKeyInfo& removed);
