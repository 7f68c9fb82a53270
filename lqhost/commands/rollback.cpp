// `lqhost rollback`: goes back, by hand, to what was before the newest changes; and `lqhost history`, what
// became of the changes before.
#include <memory>

#include "common/terminal_text.h"
#include "common/text_table.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/rollback/history.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/ask_resident.h"

namespace host {

namespace {

constexpr const char* kByHand = "by hand, with lqhost rollback";

int forget() {
  if (!forgetGoneBack())
    return print(complaint(kExitFailed, "there is nothing that this machine went back from"));
  return print({kExitOk, "forgotten: the next synchronisation may apply it again\n", ""});
}

int rollback(bool isToForget) {
  // What a machine has lost that makes it a joined one comes back by this.
  const auto notJoined = whyNotJoined();
  if (notJoined && !secondsUntilGoingBack()) return print(*notJoined);
  if (isToForget) return forget();
  if (const auto answered = answerOfResident(kAskRollback)) return print(*answered);
  ProductLibrary product;
  Passes passes(product);
  if (passes.error().IsError()) return print(complaint(kExitFailed, passes.error().AsString()));
  return print(rollBackNow(passes));
}

int history() {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  const std::string text = historyText();
  return print({kExitOk, text.empty() ? "No pass has changed anything yet.\n" : text, ""});
}

}  // namespace

CommandResult rollBackNow(Passes& passes) {
  const WentBack back = passes.goBackNow(kByHand);
  if (back.error.IsError()) return complaint(kExitFailed, back.error.AsString());
  programs::TextTable table({"OUTCOME", "KEY", "VALUE"});
  for (const MemoryPlace& place : back.restored)
    table.addRow({place.before.isSet() ? "restored" : "removed", place.path, place.name});
  for (const MemoryPlace& place : back.local) table.addRow({"left", place.path, place.name});
  CommandResult result;
  result.out =
      table.text() + "\n" + std::to_string(back.restored.size()) + " values are as they were before, " +
      std::to_string(back.local.size()) + " were left, because somebody has changed them since\n" +
      "the batch is not applied again until the server sets something else; `lqhost rollback --forget` "
      "lets it be\n";
  if (!back.isCacheRestored)
    result.err =
        complaintLine("the settings cache of before could not be put back; a synchronisation makes one");
  if (!back.local.empty()) result.exitCode = kExitPartly;
  return result;
}

void addRollback(CommandLine& line) {
  const auto isToForget = std::make_shared<bool>(false);
  line.add("rollback", "Go back to what was before the newest changes",
           [isToForget] { return rollback(*isToForget); })
      .flag("--forget", *isToForget,
            "Go nowhere: let the next synchronisation apply what was gone back from");
  line.add("history", "Show what became of the changes that were made", &history);
}

}  // namespace host
