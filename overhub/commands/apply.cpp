// `overhub apply`: makes the store what an exported folder says.
#include <memory>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/definitions.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_folder.h"
#include "overhub/commands/store_place.h"

namespace {

constexpr const char* kFooter =
    R"(What the folder does not say is withdrawn, and a group whose file is gone is removed; so export first. Clients
are neither added nor removed, nor are their hosts changed. A secret stands in it as ********, which leaves it as it
is. All becomes so in one revision, or nothing does.

Example:
  overhub export /srv/settings        (then edit it)
  overhub apply /srv/settings --dry-run
  overhub apply /srv/settings --why "ticket 4711")";

struct Apply {
  std::string folder;
  ChangeOptions change;
};

int complainOfAll(const std::vector<std::string>& faults) {
  for (const std::string& fault : faults) warn(fault);
  return complain(kExitRefused, "nothing was changed");
}

CWmError checkSetting(const Setting& setting, const Definitions& definitions, const ChangeOptions& change) {
  const OBGui::RegistryKeyInfo record = recordOf(setting);
  CWmError error = checkRecord(record);
  if (!error.IsError()) error = definitions.check(record);
  // A dry run shows what would be refused.
  if (!error.IsError() && !change.isForced() && !change.isDryRun()) error = checkHarm(record);
  const bool hasNoEnd = setting.isRemoval || setting.identity.isKey;
  if (!error.IsError() && hasNoEnd && setting.expires != 0)
    error = {kLqErrArgument, "a removal and a sub-key have no end"};
  return error;
}

int apply(const Store& store, const Apply& wanted) {
  store_folder::Folder said;
  std::vector<std::string> faults;
  store_folder::read(wanted.folder, said, faults);
  if (!faults.empty()) return complainOfAll(faults);
  Definitions definitions;
  CWmError error = loadDefinitions("", store.directory(), definitions);
  if (error.IsError()) return storeFailed(error);
  const auto check = [&](const Setting& setting) {
    return checkSetting(setting, definitions, wanted.change);
  };
  // Once to tell all faults at once, and once more in the transaction that makes the change.
  error = store.database().read([&](soci::session& session) {
    ChangeSet changes;
    faults.clear();
    store_folder::compare(session, said, check, changes, faults);
    return CWmError();
  });
  if (error.IsError()) return storeFailed(error);
  if (!faults.empty()) return complainOfAll(faults);
  return wanted.change.make(
      store, "apply " + wanted.folder, [&](soci::session& session, ChangeSet& changes) -> CWmError {
        std::vector<std::string> newFaults;
        store_folder::compare(session, said, check, changes, newFaults);
        return newFaults.empty() ? CWmError() : CWmError(kLqErrRequestRefused, newFaults.front());
      });
}

}  // namespace

void addApply(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Apply>();
  auto options = line.add("apply", "Make settings and groups what an exported folder says",
                          onStore(place, [wanted](const Store& store) { return apply(store, *wanted); }));
  options.required("FOLDER", wanted->folder, "A folder of \"overhub export\", edited");
  wanted->change.describe(options);
  options.footer(kFooter);
}
