// Which values get changed on the machines, and are corrected: for each client and value how often, and what
// it was the last time. The two hundred a client that were changed last are kept.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "overhub/store/database.h"
#include "records/host_report.h"

struct DriftCount {
  std::int64_t client = 0;
  std::string path;
  std::string name;
  std::int64_t times = 0;
  std::int64_t first = 0;  // by the store's clock, in seconds since the epoch
  std::int64_t last = 0;
  std::string found;      // what it was before it was corrected the last time
  std::string corrected;  // what it is since
  bool isSecret = false;  // neither is told
};

// Counts what a report tells; with the client's row taken, and once for each report.
void countDrifts(soci::session& session, std::int64_t client, const HostReport::Report& report,
                 std::int64_t received);

// By path, name and client.
std::vector<DriftCount> allDrifts(soci::session& session);
std::vector<DriftCount> driftsOf(soci::session& session, std::int64_t client);

// How many values of each client were corrected after that time, and when the last of them was; by its id.
struct RecentDrift {
  std::int64_t values = 0;
  std::int64_t last = 0;
};
std::unordered_map<std::int64_t, RecentDrift> driftsSince(soci::session& session, std::int64_t time);
