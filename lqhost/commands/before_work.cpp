#include "lqhost/commands/before_work.h"

#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/passes.h"
#include "lqhost/service/product_library.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"

namespace host {

std::optional<CommandResult> whyNotJoined() {
  LQPlatformInfo info;
  std::string server;
  if (info.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, server)) return std::nullopt;
  if (info.getRegError() == kRegUnavailable) return complaint(kExitNotJoined, info.getRegErrorText());
  if (secondsUntilGoingBack())
    return complaint(kExitFailed, "the server's host is not set: " + memoryText(memoryState()));
  return complaint(kExitNotJoined, "instance " + instanceName() + " in " + lqregistry::File() +
                                       " has not joined a server; run `lqhost join FILE` with the file that "
                                       "`overhub add-client` wrote");
}

std::optional<CommandResult> whyNotEvenAfterGoingBack(const WhyNot& whyNot) {
  std::optional<CommandResult> reason = whyNot();
  if (!reason || secondsUntilGoingBack() != 0) return reason;
  ProductLibrary product;
  Passes passes(product);
  if (!passes.error().IsError() && passes.goBackWhereOverdue()) reason = whyNot();
  return reason;
}

std::optional<CommandResult> answerOfResident(const std::string& question, std::chrono::milliseconds wait) {
  std::optional<CommandResult> answer;
  const CWmError error = askResident(question, answer, wait);
  return error.IsError() ? complaint(kExitFailed, error.AsString()) : answer;
}

}  // namespace host
