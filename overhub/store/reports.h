// What clients' hosts say of themselves: of each the newest report, which is all that counts.
//
// Of one epoch the report with the higher sequence is the newer one. One of another epoch, or with a lower
// sequence but made later, comes from a host that has lost count, or from a machine that was set back to an
// older state: it counts as it arrives. When two epochs take turns, two machines answer by one name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/report_check.h"
#include "overhub/store/store.h"
#include "records/host_report.h"

// Keeps a report of a client and makes the answer to it. A refusal, which says why, is an error with
// kLqErrRequestRefused; any other is the store's. Any thread.
CWmError acceptReport(const Store& store, const std::string& client, const HostReport::Report& report,
                      HostReport::Answer& answer);

// What follows is within a unit of work (database.h), which gives the session; what goes wrong is thrown to
// it.

// What the store knows of a client's newest report without reading it.
struct ReportNote {
  std::int64_t client = 0;
  std::string epoch;
  std::int64_t sequence = 0;
  std::string formerEpoch;
  std::int64_t changed = 0;   // when a host that had lost count took over
  std::int64_t turned = 0;    // when the one before did so again soon after; 0: never
  std::int64_t time = 0;      // by the client's clock
  std::int64_t received = 0;  // by the store's
  std::string digest;         // of the batch that the machine was handed last
  ReportSummary summary;
  std::int64_t backSince = -1;  // since when it says, or last said, that it went back; -1: it never did

  // Whether two machines have answered by this name of late.
  bool areTwo(std::int64_t now) const;
};

// Whether a machine is to go back from the changes that it remembers, since they were taken back. Of changes
// that came later it would go back from those, too, which may be the remedy: from them it does not.
bool shallGoBack(soci::session& session, std::int64_t client, const HostReport::Memory& memory);

// Of all clients, in no order.
std::vector<ReportNote> allReportNotes(soci::session& session);

struct StoredReport {
  ReportNote note;
  HostReport::Report report;
};
// Nothing when there is none, or none that can be read.
std::optional<StoredReport> reportOf(soci::session& session, std::int64_t client);
