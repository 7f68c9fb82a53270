// The newest report as it lies in the base directory, so that it is sent later when it could not be sent, and
// so that the count of reports goes on after the process has ended.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqregistry/CWmError.h"
#include "records/host_report.h"

namespace host {

inline constexpr const char* kReportFile = "lqhost.report";

// What became of the newest report.
struct ReportStanding {
  std::int64_t accepted = 0;  // when the server took one last, seconds since the epoch; 0: never
  bool isTaken = false;       // the newest one was
  std::string whyNot;         // for people; of one that was not, once it has been tried
};

struct KeptReport {
  HostReport::Report report;
  std::int64_t reserved = 0;  // numbers up to this one may have been used
  ReportStanding standing;
};

// That of the instance in focus. One that is not there, or cannot be understood, is as new, with an epoch of
// its own.
KeptReport readKeptReport();

CWmError writeKeptReport(const KeptReport& kept);

// The server's answer that has told last where the values of a batch come from.
inline constexpr const char* kOriginsFile = "lqhost.origins";
// That of the instance in focus; nothing when there is none, or none that can be understood.
std::optional<HostReport::Answer> readOrigins();

// One line for `lqhost status`.
std::string standingText(const ReportStanding& standing);

}  // namespace host
