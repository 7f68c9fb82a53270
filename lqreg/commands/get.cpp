// `lqreg get`: a value's data, as it is.
#include <memory>

#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"

namespace {

int get(LQPlatformInfo& registry, const std::string& key, const std::string& name) {
  std::string data;
  if (!registry.getString(key, name, data)) return refused(registry, key);
  print(data + "\n");
  return kExitDone;
}

}  // namespace

void addGet(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto key = std::make_shared<std::string>();
  const auto name = std::make_shared<std::string>();
  line.add("get", "Print a value's data", [&registry, key, name] { return get(registry, *key, *name); })
      .required("KEY", *key, "The key")
      .required("NAME", *name, "The value's name");
}
