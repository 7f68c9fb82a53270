// `overhub unset`: takes a record out of a client's batch.
#include <memory>

#include "overhub/commands/client_batch.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/batch_edit.h"

namespace {

struct Unset {
  std::string client;
  std::string path;
  std::string name;
};

int unset(const DataStore& store, const Unset& wanted) {
  return editBatch(store, wanted.client, [&wanted](OBGui::KeyList& keys) {
    if (unsetRecord(keys, wanted.path, wanted.name)) return kExitOk;
    return complain(kExitRefused, "the batch of " + wanted.client + " has no record \"" + wanted.name +
                                      "\" in \"" + wanted.path + "\"; \"overhub show " + wanted.client +
                                      "\" lists those it has");
  });
}

}  // namespace

void addUnset(programs::CommandLine& line, const std::string& data) {
  const auto wanted = std::make_shared<Unset>();
  line.add("unset",
           "Take a record out of a client's batch. The client keeps its value; to remove it there use \"set "
           "--delete\"",
           onExisting(data, [wanted](const DataStore& store) { return unset(store, *wanted); }))
      .required("CLIENT", wanted->client, "The client's name, or @static")
      .required("PATH", wanted->path, "The key's path, as \"show\" prints it")
      .required("NAME", wanted->name, "The value's name");
}
