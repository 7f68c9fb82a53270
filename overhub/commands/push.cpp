// `overhub push`: has a client apply its batch now.
#include <memory>
#include <vector>

#include "common/machine_identity.h"
#include "overhub/commands/change_options.h"
#include "overhub/commands/client_link.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/file_access.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/scope.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFooter = R"(Prints "applied" or "failed", which "acks" lists too.

Examples:
  overhub push web-1
  overhub push web-1 web-1.xml             (a file that "uploads web-1 --out" has written, or one like it))";

// The records of a file, as settings of the client's own.
int readFile(const std::string& client, const std::string& file, std::vector<Setting>& settings) {
  std::string text;
  if (const CWmError error = file_access::readWhole(file, text); error.IsError())
    return complain(kExitRefused, error.AsString());
  OBGui::RegistryTaskResp given;
  if (std::string error; given.unserialize(text, &error) != 0)
    return complain(kExitRefused, file + " is not a batch such as \"overhub uploads " + client +
                                      " --out FILE\" writes: " + error);
  OBGui::KeyList& keys = given.keys.edit();
  // An upload holds who its machine is to the server; another machine must not become that one.
  const std::size_t left = std::erase_if(keys, [](const auto& key) {
    return programs::isMachineIdentity(key.keyPath.get(), key.valueName.get());
  });
  if (left != 0) warn(std::to_string(left) + " values that say which machine it is are not pushed");
  // Keys come with the values in them; no client takes them from a server.
  std::erase_if(keys,
                [](const auto& key) { return isKey(key) && !isToBeRemoved(key) && !isCreatableKey(key); });
  const CWmError error = settingsOf(keys, settings);
  return error.IsError() ? complain(kExitRefused, file + ": " + error.AsString()) : kExitOk;
}

// Makes what the file holds the client's own settings, in one revision.
int setFromFile(const Store& store, const std::string& client, const std::string& file,
                const ChangeOptions& change) {
  std::vector<Setting> settings;
  if (const int exitCode = readFile(client, file, settings); exitCode != kExitOk) return exitCode;
  return change.make(store, "push " + client + " " + file, [&](soci::session& session, ChangeSet& changes) {
    Client found;
    const CWmError error = oneClient(session, client, found);
    for (Setting& setting : settings) {
      setting.scope = machineScope(found.id);
      changes.put(setting);
    }
    return error;
  });
}

int sendBatch(const Store& store, ClientLink& link) {
  HandOut out;
  CWmError error = handOutForPush(store, link.client(), out);
  if (error.IsError()) return storeFailed(error);
  if (!out.refusal.empty()) return complain(kExitRefused, out.refusal);
  OBGui::RegistryTaskResp answer;
  if (const int exitCode = link.ask(store, out.batch, answer); exitCode != kExitOk) return exitCode;
  const std::int64_t status = answer.taskStatus;
  if (status != OBGui::kTaskSuccess && status != OBGui::kTaskFailed)
    return link.complainOfAnswer("the task status " + std::to_string(status));
  print(outcomeText(status) + "\n");
  // A push does not reach the client's cache and proves no hand-out.
  constexpr std::int64_t kNoHandOut = 0;
  error = acknowledge(store, link.client(), kNoHandOut, answer.client->clientId, status);
  if (error.IsError()) return storeFailed(error);
  return status == OBGui::kTaskSuccess ? kExitOk : kExitRefused;
}

struct Push {
  ClientLink link;
  std::string file;
  ChangeOptions change;
};

int push(const Store& store, Push& wanted) {
  if (!wanted.file.empty()) {
    const int exitCode = setFromFile(store, wanted.link.client(), wanted.file, wanted.change);
    if (exitCode != kExitOk || wanted.change.isDryRun()) return exitCode;
  }
  return sendBatch(store, wanted.link);
}

}  // namespace

void addPush(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Push>();
  auto options = line.add("push", "Have a client apply its batch now",
                          onStore(place, [wanted](const Store& store) { return push(store, *wanted); }));
  wanted->link.describe(options);
  options.option("FILE", wanted->file, "Set what this file holds for the client first, in one revision");
  wanted->change.describe(options);
  options.footer(kFooter);
}
