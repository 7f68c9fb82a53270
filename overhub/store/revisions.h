// The revisions: who changed what machines are to hold, when and why.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "overhub/store/database.h"
#include "records/host_report.h"

struct Revision {
  std::int64_t number = 0;
  std::int64_t time = 0;  // seconds since the epoch; never before that of an older one
  std::string who;
  std::string why;
  std::string command;
  std::int64_t confirm = HostReport::kDemandNothing;  // what it demands of machines (confirmations.h)
};

void writeRevision(soci::session& session, const Revision& revision, const std::string& operation);
std::optional<Revision> findRevision(soci::session& session, std::int64_t number);
// The highest number of a revision up to this one; 0: there is none. A restored store has a wide gap in them.
std::int64_t lastRevisionUpTo(soci::session& session, std::int64_t number);
// Ascending by number.
std::vector<Revision> allRevisions(soci::session& session);
// Those from one number up to another, ascending.
std::vector<Revision> revisionsBetween(soci::session& session, std::int64_t first, std::int64_t last);
// The newest so many, the newest first.
std::vector<Revision> newestRevisions(soci::session& session, std::int64_t count);
