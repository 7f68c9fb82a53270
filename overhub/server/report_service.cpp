#include "overhub/server/report_service.h"

#include <utility>

#include "overhub/store/reports.h"

namespace {

Answer answerReport(const Store& store, Caller& caller, const CNMessageBase& message) {
  const auto& report = *messageAs<HostReport::Report>(&message);
  auto reply = std::make_unique<HostReport::Answer>();
  const CWmError error = acceptReport(store, caller.client, report, *reply);
  if (error.IsError()) return Answer::ofStore(error, "keep the report of " + caller.client);
  std::string summary = "report " + std::to_string(report.sequence) + ", " +
                        std::to_string(report.problems->size()) + " problems";
  if (!reply->origins->empty()) summary += ", " + std::to_string(reply->origins->size()) + " origins told";
  return Answer::withReply(std::move(reply), std::move(summary));
}

}  // namespace

std::span<const MessageHandler> reportServiceHandlers() {
  static constexpr MessageHandler kHandlers[] = {{HostReport::Report::kTag, answerReport}};
  return kHandlers;
}
