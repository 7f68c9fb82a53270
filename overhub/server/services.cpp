// The table of services, and how the parts of one are found.
#include <utility>

#include "lqregistry/ObDebug.h"
#include "overhub/server/registry_manager.h"
#include "overhub/server/report_service.h"
#include "overhub/server/service.h"
#include "records/service_names.h"

Answer Answer::withReply(std::unique_ptr<CNMessageBase> message, std::string summary) {
  return {std::move(message), {}, std::move(summary)};
}

Answer Answer::withoutReply(std::string summary) {
  return {nullptr, {}, std::move(summary)};
}

Answer Answer::refused(std::string reason) {
  std::string summary = "refused: " + reason;
  return {nullptr, std::move(reason), std::move(summary)};
}

Answer Answer::ofStore(const CWmError& error, const std::string& what) {
  if (error.GetCode() == kLqErrRequestRefused) return refused(error.AsString());  // it was removed, say
  ObEvent().Error("overhub::service", "%s", error.AsString());
  return refused("the server cannot " + what + " now; its log tells why, come again later");
}

Handler Service::find(unsigned long tag) const {
  for (const MessageHandler& candidate : handlers)
    if (candidate.tag == tag) return candidate.handler;
  return nullptr;
}

const Service* findService(const std::string& library, const std::string& entry) {
  static const Service kServices[] = {
      {kServerLibraryName, kServerEntryName, registryManagerHandlers()},
      {kReportLibraryName, kReportEntryName, reportServiceHandlers()},
  };
  for (const Service& service : kServices)
    if (library == service.library && entry == service.entry) return &service;
  return nullptr;
}
