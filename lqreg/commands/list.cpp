// `lqreg list`: a key's values and the names of its sub-keys.
#include <memory>

#include "common/terminal_text.h"
#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"

using programs::escapedForTerminal;

namespace {

int list(LQPlatformInfo& registry, const std::string& key) {
  std::map<std::string, std::string> values;
  std::list<std::string> subKeys;
  if (!registry.getRegValues(key, values) || !registry.getSubKeys(key, subKeys))
    return refused(registry, key);
  for (const auto& [name, data] : values)
    print(lineOf(0, escapedForTerminal(name) + " = " + escapedForTerminal(data)));
  for (const auto& name : subKeys) print(lineOf(0, escapedForTerminal(name) + "/"));
  return kExitDone;
}

}  // namespace

void addList(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto key = std::make_shared<std::string>();
  line.add("list", "Print a key's values and the names of its sub-keys",
           [&registry, key] { return list(registry, *key); })
      .required("KEY", *key, "The key");
}
