// `overhub unset`: withdraws what was set for machines, groups or all.
#include <memory>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/setting_place.h"
#include "overhub/store/settings.h"

namespace {

constexpr const char* kFooter =
    R"(Machines that got the value from here lose it, unless something farther sets it: their own loses to their groups',
those to @all. A sub-key (--type KEY) stays on the machine, with what is in it; "set --type KEY --delete" removes it.
Of NAME_UNTIL only the end of NAME is withdrawn: the value stays for good.

Examples:
  overhub unset web-1 '~/Limits' nMAX
  overhub unset @all '~/Limits' nMAX --dry-run)";

struct Unset {
  std::string target;
  std::string path;
  std::string name;
  ChangeOptions change;
};

// What one scope says of the name, as value and as sub-key, is to be withdrawn; false when it says nothing.
bool withdraw(const std::vector<Setting>& named, const std::string& scope, const std::string& place,
              ChangeSet& changes) {
  bool isFound = false;
  for (const Setting& setting : named) {
    if (setting.scope != scope || setting.identity.place != place) continue;
    changes.withdraw(scope, setting.identity);
    isFound = true;
  }
  return isFound;
}

bool withdrawExpiry(const std::vector<Setting>& named, const std::string& scope, const std::string& place,
                    ChangeSet& changes) {
  bool isFound = false;
  for (Setting setting : named) {
    if (setting.scope != scope || setting.identity.place != place || setting.expires == 0) continue;
    setting.expires = 0;
    changes.put(setting);
    isFound = true;
  }
  return isFound;
}

CWmError build(soci::session& session, const Unset& wanted, ChangeSet& changes) {
  std::vector<std::string> scopes;
  CWmError error = scopesOfTarget(session, wanted.target, scopes);
  const std::string place = settingPlace(wanted.path);
  const std::string value = valueOfExpiry(wanted.name);
  const std::vector<Setting> named = settingsNamed(session, value.empty() ? wanted.name : value);
  bool isFound = false;
  for (const std::string& scope : scopes) {
    const bool isHere =
        value.empty() ? withdraw(named, scope, place, changes) : withdrawExpiry(named, scope, place, changes);
    isFound = isFound || isHere;
  }
  if (error.IsError() || isFound) return error;
  return {kLqErrRequestRefused, "nothing is set for " + wanted.target + " as \"" + wanted.name + "\" in \"" +
                                    wanted.path + "\"; \"overhub show " + wanted.target + "\" lists what is"};
}

int unset(const Store& store, const Unset& wanted) {
  return wanted.change.make(
      store, "unset " + wanted.target + " " + wanted.path + " " + wanted.name,
      [&wanted](soci::session& session, ChangeSet& changes) { return build(session, wanted, changes); });
}

}  // namespace

void addUnset(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Unset>();
  auto options = line.add("unset", "Withdraw what was set for machines, groups or all",
                          onStore(place, [wanted](const Store& store) { return unset(store, *wanted); }));
  options.required("TARGET", wanted->target, std::string(kTargetForms) + "; @static for the static list")
      .required("PATH", wanted->path, "The key's path")
      .required("NAME", wanted->name, "The value's name, or the sub-key's");
  wanted->change.describe(options);
  options.footer(kFooter);
}
