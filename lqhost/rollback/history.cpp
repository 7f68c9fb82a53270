#include "lqhost/rollback/history.h"

#include <algorithm>
#include <sstream>

#include "common/terminal_text.h"
#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/PrintableText.h"
#include "lqregistry/UtcText.h"

namespace host {

namespace {

constexpr std::size_t kShownDigits = 12;    // of a digest: enough to tell two batches apart
constexpr std::size_t kReasonBytes = 512;   // a module's sentence may be long
constexpr std::size_t kMaxHistory = 65536;  // a file beyond this is not ours

std::string historyPath() {
  return lqregistry::File() + "." + instanceName() + ".history";
}

std::vector<std::string> lines() {
  std::string text;
  if (FXFile::ReadContents(historyPath(), text, kMaxHistory).IsError()) return {};
  std::istringstream in(text);
  std::vector<std::string> all;
  for (std::string line; std::getline(in, line);) all.push_back(line);
  return all;
}

}  // namespace

void noteInHistory(const std::string& event, const ChangeMemory& memory, const std::string& reason) {
  std::string text = event + ": " + std::to_string(memory.places->size()) + " places of batch " +
                     memory.digest->substr(0, kShownDigits) + " of " + lqtext::utcText(memory.since);
  if (memory.localChanges != 0)
    text += ", " + std::to_string(memory.localChanges) + " left as somebody had changed them";
  if (!reason.empty()) text += "; " + programs::escapedForTerminal(reason.substr(0, kReasonBytes));
  std::vector<std::string> all = lines();
  // Whoever was killed while going back comes by here again.
  if (!all.empty() && all.back().ends_with(" " + text)) return;
  all.push_back(lqtext::utcText(thisMoment().wall) + " " + text);
  std::string file;
  for (std::size_t i = all.size() - std::min(all.size(), kHistoryLines); i < all.size(); ++i)
    file += all[i] + "\n";
  if (const CWmError error = FXFile::ReplaceContents(historyPath(), file); error.IsError())
    ObEvent().Error("host::history", "Not noted, %s: %s", text.c_str(), error.AsString());
}

std::string historyText() {
  // Escaped when they were written; once more would double each backslash.
  std::string text;
  for (const std::string& line : lines()) {
    for (std::string_view rest = line; !rest.empty();)
      rest.remove_prefix(lqtext::appendPrintable(text, rest));
    text += '\n';
  }
  return text;
}

}  // namespace host
