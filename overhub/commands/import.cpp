// `overhub import`: takes over the data directory of the version before.
#include <memory>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/former_directory.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/machine_batch.h"

namespace {

constexpr const char* kFooter =
    R"(Stop the server on DIRECTORY first: what it still takes in is not taken over. DIRECTORY is only read; it may be the
store's own (--data), whose key is the store's from then on. Keep its files until all clients have called.
Ids, session keys, hosts, settings, acknowledgements and uploads stay what they are, so no client joins anew. A value
X with its X_UNTIL becomes one setting with an end. All is taken over, or nothing.

Example:
  mv /var/lib/overhub /var/lib/overhub.former
  overhub import /var/lib/overhub.former)";

// What would be refused if somebody set it now, and what no machine can be handed: taken over all the same,
// as clients have lived with it.
void warnOf(const FormerClient& former, std::int64_t now) {
  const std::string& name = former.client.name;
  std::vector<Setting> settings;
  if (settingsOf(former.records, settings).IsError()) return;
  for (const Setting& setting : settings)
    if (const CWmError error = checkRecord(recordOf(setting)); error.IsError())
      warn(name + ": \"" + setting.identity.name + "\" in \"" + setting.path + "\": " + error.AsString());
  const std::string conflict = expiryConflict(effectiveSettings({settings}, now));
  if (!conflict.empty()) warn(name + " is handed nothing until this is mended: " + conflict);
}

int import(const Store::Place& place, const std::string& directory) {
  CWmError error = former_directory::open(directory);
  if (error.IsError()) return storeFailed(error);
  FormerStore former;
  std::vector<std::string> faults;
  former_directory::read(directory, former, faults);
  for (const std::string& fault : faults) warn(fault);
  if (!faults.empty()) return complain(kExitRefused, "nothing was taken over; mend these files first");
  // Only now, as it names another protection key.
  Store store(place);
  error = store.prepareWithKey();
  if (!error.IsError()) error = takeOver(store, former, {whoTypes(), "import " + directory});
  std::int64_t now = 0;
  if (!error.IsError())
    error = store.database().read([&](soci::session& session) {
      now = store.database().now(session);
      return CWmError();
    });
  if (error.IsError()) return storeFailed(error);
  for (const FormerClient& client : former.clients) warnOf(client, now);
  print(std::to_string(former.clients.size()) + " clients taken over into " + store.place() + "\n");
  return kExitOk;
}

}  // namespace

void addImport(programs::CommandLine& line, const Store::Place& place) {
  const auto directory = std::make_shared<std::string>();
  line.add("import", "Take over a data directory of the version before, whose server is stopped",
           [&place, directory] { return import(place, *directory); })
      .required("DIRECTORY", *directory, R"(That directory, with "clients", "keys" and "secret.key" in it)")
      .footer(kFooter);
}
