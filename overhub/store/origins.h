// Where the values of a batch come from, as a client is told.
#pragma once

#include "overhub/store/clients.h"
#include "records/host_report.h"

// The origins of what counted for the client at a revision, and the revisions that they name, into the
// answer. Beyond a bound the origins end. Within a unit of work (database.h).
void addOrigins(soci::session& session, const Client& client, std::int64_t revision, std::int64_t now,
                HostReport::Answer& answer);
