// `lqreg tree`: everything below a key.
#include <memory>

#include "common/terminal_text.h"
#include "lqreg/commands/commands.h"
#include "lqreg/commands/key_walk.h"
#include "lqreg/commands/reporting.h"
#include "lqregistry/LqSettings.h"

using programs::escapedForTerminal;

namespace {

// Of the instance's root, or of all there is, when `key` is empty.
int tree(LQPlatformInfo& registry, std::string key) {
  if (key.empty() && registry.focus().empty()) key = lqsettings::kAbsoluteRoot;

  const std::string rootName = key.empty() ? lqsettings::kInstanceRoot : key;
  std::string text;
  const auto append = [&](const WalkedKey& walked) {
    text += lineOf(walked.depth, escapedForTerminal(walked.depth == 0 ? rootName : walked.name) + "/");
    for (const auto& [name, data] : walked.values)
      text += lineOf(walked.depth + 1, escapedForTerminal(name) + " = " + escapedForTerminal(data));
  };
  if (!walkKeys(registry, key, append)) return refused(registry, key);
  print(text);
  return kExitDone;
}

}  // namespace

void addTree(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto key = std::make_shared<std::string>();
  line.add("tree", "Print everything below a key", [&registry, key] { return tree(registry, *key); })
      .option("KEY", *key, "The key; otherwise the instance's root, or SOFTWARE when there is no instance");
}
