// `overhub push`: has clients apply their batches now.
#include <memory>
#include <vector>

#include "common/machine_identity.h"
#include "overhub/commands/change_options.h"
#include "overhub/commands/client_requests.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/file_access.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/scope.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFooter =
    R"(Prints "applied" or "failed", which "acks" lists too; for several machines in a table.

Examples:
  overhub push web-1
  overhub push @berlin --parallel 32
  overhub push web-1 web-1.xml             (a file that "uploads web-1 --out" has written, or one like it))";

// A file may hold more than a person can type.
CWmError checkPushed(const OBGui::RegistryKeyInfo& record) {
  if (record.encryptedValue->isUnreadable()) {
    return {kLqErrRequestRefused, "its secret \"" + record.valueName.get() + "\" in \"" +
                                      record.keyPath.get() +
                                      "\" was protected with another key than the store's"};
  }
  OBGui::RegistryKeyInfo typed = record;
  if (!isKey(record)) {
    typed.valueType = std::string(STRINGTYPE);  // clients take every other word for that
    const std::string ended = valueOfExpiry(record.valueName.get());
    if (!ended.empty()) typed.valueName = ended;
  }
  return checkRecord(typed);
}

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
  CWmError error;
  for (const OBGui::RegistryKeyInfo& key : keys)
    if (!error.IsError()) error = checkPushed(key);
  if (!error.IsError()) error = settingsOf(keys, settings);
  return error.IsError() ? complain(kExitRefused, file + ": " + error.AsString()) : kExitOk;
}

// Makes what the file holds the client's own settings, in one revision.
int setFromFile(const Store& store, const std::string& client, const std::string& file,
                const ChangeOptions& change) {
  std::vector<Setting> settings;
  if (const int exitCode = readFile(client, file, settings); exitCode != kExitOk) return exitCode;
  return change.make(store, "push " + client + " " + file, [&](soci::session& session, ChangeSet& changes) {
    Client found;
    CWmError error = oneClient(session, client, found);
    for (Setting& setting : settings) {
      setting.scope = machineScope(found.id);
      changes.put(setting);
    }
    return error;
  });
}

// What a push may take beside its waits for the client, in seconds.
constexpr std::int64_t kLeaseMargin = 60;

RequestOutcome sendBatch(const Store& store, ClientLink& link) {
  const std::string& name = link.client().name;
  HandOut out;
  CWmError error = handOutForPush(store, name, link.longestSeconds() + kLeaseMargin, out);
  if (error.IsError()) return failedRequest(error);
  if (!out.refusal.empty()) return failedRequest(kExitRefused, out.refusal);
  OBGui::RegistryTaskResp answer;
  RequestOutcome outcome = link.ask(out.batch, answer);
  error = notePushed(store, name, out);
  if (error.IsError()) return failedRequest(error);
  if (outcome.exitCode != kExitOk) return outcome;
  const std::int64_t status = answer.taskStatus;
  if (status != OBGui::kTaskSuccess && status != OBGui::kTaskFailed)
    return link.answeredWith("the task status " + std::to_string(status));
  outcome.verdict = outcomeText(status);
  // A push does not reach the client's cache and proves no hand-out.
  constexpr std::int64_t kNoHandOut = 0;
  error = acknowledge(store, name, kNoHandOut, answer.client->clientId, status);
  if (error.IsError()) outcome.complaint = error.AsString();
  outcome.exitCode = error.IsError()                 ? exitCodeOf(error)
                     : status == OBGui::kTaskSuccess ? kExitOk
                                                     : kExitRefused;
  return outcome;
}

struct Push {
  ClientRequests requests;
  std::string file;
  ChangeOptions change;
};

int push(const Store& store, const Push& wanted) {
  std::vector<Client> clients;
  int exitCode = wanted.requests.find(store, clients);
  if (exitCode != kExitOk) return exitCode;
  if (wanted.file.empty() && wanted.change.isGiven()) {
    return complain(kExitUsage,
                    "without a FILE a push changes nothing, so there is nothing that --why, "
                    "--dry-run, --expect or --force could be about");
  }
  if (!wanted.file.empty()) {
    if (clients.size() != 1)
      return complain(kExitUsage, "a file is pushed to one client; what it says is set for it");
    exitCode = setFromFile(store, clients.front().name, wanted.file, wanted.change);
    if (exitCode != kExitOk || wanted.change.isDryRun()) return exitCode;
  }
  return wanted.requests.make(store, clients, [&store](ClientLink& link) { return sendBatch(store, link); });
}

}  // namespace

void addPush(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Push>();
  auto options = line.add("push", "Have clients apply their batches now",
                          onStore(place, [wanted](const Store& store) { return push(store, *wanted); }));
  wanted->requests.describe(options);
  options.option("FILE", wanted->file, "Set what this file holds for the one client first, in one revision");
  wanted->change.describe(options);
  options.footer(kFooter);
}
