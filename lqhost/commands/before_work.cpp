#include "lqhost/commands/before_work.h"

#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"

namespace host {

std::optional<CommandResult> whyNotJoined() {
  const CWmError error = checkJoined();
  if (!error.IsError()) return std::nullopt;
  return complaint(kExitNotJoined, error.AsString());
}

std::optional<CommandResult> answerOfResident(const std::string& question, std::chrono::milliseconds wait) {
  std::optional<CommandResult> answer;
  const CWmError error = askResident(question, answer, wait);
  return error.IsError() ? complaint(kExitFailed, error.AsString()) : answer;
}

}  // namespace host
