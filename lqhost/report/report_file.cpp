#include "lqhost/report/report_file.h"

#include <random>
#include <sstream>

#include "common/terminal_text.h"
#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/UtcText.h"

namespace host {

namespace {

constexpr const char* kMark = "lqhost-report-1";
// The report, and what stands before it.
constexpr std::size_t kMaxFileBytes = HostReport::kMaxReportBytes + 8192;

std::string newEpoch() {
  std::random_device random;
  std::ostringstream text;
  text << std::hex << random() << random();
  return text.str();
}

bool parse(const std::string& text, KeptReport& kept) {
  std::istringstream in(text);
  std::string mark;
  std::string xml;
  std::string rest;
  KeptReport read;
  if (!(in >> mark >> read.reserved >> read.standing.accepted >> read.standing.isTaken) || mark != kMark)
    return false;
  std::getline(in, rest);
  std::getline(in, read.standing.whyNot);
  std::getline(in, xml, '\0');
  if (read.report.unserialize(xml) != 0 || read.report.epoch->empty()) return false;
  kept = std::move(read);
  return true;
}

}  // namespace

KeptReport readKeptReport() {
  HostReport::RegisterSubsystem();
  std::string text;
  KeptReport kept;
  const CWmError error = FXFile::ReadContents(pathInBase(kReportFile), text, kMaxFileBytes);
  if (error.IsError() || !parse(text, kept)) {
    kept.report.version = HostReport::kVersion;
    kept.report.epoch = newEpoch();
  }
  return kept;
}

CWmError writeKeptReport(const KeptReport& kept) {
  std::string xml;
  if (kept.report.serialize(xml, false) != 0) return {kLqErrFile, "the report cannot be written as text"};
  const ReportStanding& standing = kept.standing;
  // Escaped, a reason is one line.
  const std::string head = std::string(kMark) + " " + std::to_string(kept.reserved) + " " +
                           std::to_string(standing.accepted) + " " + (standing.isTaken ? "1" : "0") + "\n" +
                           programs::escapedForTerminal(standing.whyNot) + "\n";
  return FXFile::ReplaceContents(pathInBase(kReportFile), head + xml);
}

std::optional<HostReport::Answer> readOrigins() {
  HostReport::RegisterSubsystem();
  std::string text;
  HostReport::Answer answer;
  if (FXFile::ReadContents(pathInBase(kOriginsFile), text).IsError() || answer.unserialize(text) != 0)
    return std::nullopt;
  return answer;
}

std::string standingText(const ReportStanding& standing) {
  std::string last =
      standing.accepted == 0 ? "none was accepted yet" : "accepted " + lqtext::utcText(standing.accepted);
  if (standing.isTaken) return last;
  if (standing.whyNot.empty()) return last + "; the newest waits to be sent";
  return last + "; the newest is kept and sent later: " + programs::escapedForTerminal(standing.whyNot);
}

}  // namespace host
