// Which values get changed on which machines, as commands list it.
#pragma once

#include <vector>

#include "overhub/commands/listing.h"
#include "overhub/store/clients.h"
#include "overhub/store/drifts.h"

// An empty list, and what is known of these clients added to it: by setting, then as people count machines.
Listing driftList();
void addDrifts(Listing& list, const std::vector<Client>& clients, const std::vector<DriftCount>& drifts);

// "was \"5\", is \"1\" again", or that it is secret.
std::string driftText(const DriftCount& drift);
