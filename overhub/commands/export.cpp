// `overhub export`: writes what the store says as a folder of text.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_folder.h"
#include "overhub/commands/store_place.h"

namespace {

constexpr const char* kFooter =
    R"(The folder is to be read, compared and kept in version control: a file for all machines, for each group and for
each machine that something is set for, a line a setting. Secrets and keys are not in it. Writing it again changes
only what has changed in the store; it is for one store, and holds nothing else. It is no backup: see
"overhub backup".

Example:
  overhub export /srv/settings && git -C /srv/settings commit -a -m "what is")";

int exportStore(const Store& store, const std::string& folder) {
  store_folder::Files files;
  CWmError error = store.database().read([&](soci::session& session) {
    files = store_folder::filesOf(session);
    return CWmError();
  });
  store_folder::Written written;
  if (!error.IsError()) error = store_folder::write(folder, files, written);
  if (error.IsError()) return storeFailed(error);
  for (const std::string& file : written.strange)
    warn(file + " is not of \"overhub export\" and is left; it says what the store does not");
  print(std::to_string(files.size()) + " files, of which " + std::to_string(written.written) +
        " were written; " + std::to_string(written.removed) + " removed\n");
  return kExitOk;
}

}  // namespace

void addExport(programs::CommandLine& line, const Store::Place& place) {
  const auto folder = std::make_shared<std::string>();
  line.add("export", "Write settings, groups and clients as a folder of text",
           onStore(place, [folder](const Store& store) { return exportStore(store, *folder); }))
      .required("FOLDER", *folder, "An empty or new folder, or one that was exported to before")
      .footer(kFooter);
}
