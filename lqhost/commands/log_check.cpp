#include "lqhost/commands/log_check.h"

#include "common/terminal_text.h"
#include "lqhost/command_result.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/service/product_library.h"
#include "lqregistry/ObLog.h"

namespace host {

namespace {

// Every line of a check: what applies to this machine stands in the verbose ones.
constexpr int kShownLevel = 10;

}  // namespace

int runLogCheck(const char* function) {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  ProductLibrary product;
  auto* const check = reinterpret_cast<int (*)()>(product.find(function));
  if (check == nullptr) return print(complaint(kExitFailed, product.error().AsString()));
  const oblog::Capture log(kShownLevel);
  CommandResult result;
  result.exitCode = check() == 0 ? kExitOk : kExitFailed;
  for (const oblog::Line& line : log.Lines()) result.out += programs::escapedForTerminal(line.text) + "\n";
  result.out += result.exitCode == kExitOk ? "done, or nothing to do on this machine\n" : "failed\n";
  return print(result);
}

}  // namespace host
