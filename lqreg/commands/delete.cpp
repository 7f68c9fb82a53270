// `lqreg delete`: removes a value, or a key; a key that holds something only when that is said.
#include <memory>
#include <optional>

#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"
#include "lqregistry/LqRegistryFile.h"

namespace {

struct Delete {
  std::string key;
  std::optional<std::string> name;
  bool isRecursive = false;
};

int removeKey(LQPlatformInfo& registry, const std::string& key, bool isRecursive) {
  std::map<std::string, std::string> values;
  std::list<std::string> subKeys;
  if (!isRecursive && (!registry.getRegValues(key, values) || !registry.getSubKeys(key, subKeys)))
    return refused(registry, key);
  if (!values.empty() || !subKeys.empty()) {
    return complain(kExitUsage, "the key holds " + std::to_string(values.size()) + " value(s) and " +
                                    std::to_string(subKeys.size()) + " sub-key(s) (file \"" +
                                    lqregistry::File() + "\", key \"" + key +
                                    "\"); --recursive removes it with all of them");
  }
  return registry.delRegKey(key) ? kExitDone : refused(registry, key);
}

int remove(LQPlatformInfo& registry, const Delete& wanted) {
  if (!wanted.name) return removeKey(registry, wanted.key, wanted.isRecursive);
  return registry.delRegField(wanted.key, *wanted.name) ? kExitDone : refused(registry, wanted.key);
}

}  // namespace

void addDelete(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto wanted = std::make_shared<Delete>();
  line.add("delete", "Remove a value, or a key", [&registry, wanted] { return remove(registry, *wanted); })
      .required("KEY", wanted->key, "The key")
      .option("NAME", wanted->name, "The value's name; without it, the key is removed")
      .flag("--recursive", wanted->isRecursive, "Remove the key's values and sub-keys too")
      .excludes("NAME");
}
