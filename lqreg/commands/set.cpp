// `lqreg set`: writes a value.
#include <memory>

#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"

namespace {

struct Set {
  std::string key;
  std::string name;
  std::string value;
};

int set(LQPlatformInfo& registry, const Set& wanted) {
  return registry.setString(wanted.key, wanted.name, wanted.value, 0) != 0 ? kExitDone
                                                                           : refused(registry, wanted.key);
}

}  // namespace

void addSet(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto wanted = std::make_shared<Set>();
  line.add("set", "Write a value; the key is created if need be",
           [&registry, wanted] { return set(registry, *wanted); })
      .required("KEY", wanted->key, "The key")
      .required("NAME", wanted->name, "The value's name")
      .required("VALUE", wanted->value, "The data, as text");
}
