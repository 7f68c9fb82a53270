// `overhub push`: has a client apply its batch now.
#include <memory>
#include <utility>

#include "common/machine_identity.h"
#include "overhub/commands/client_link.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/acknowledgements.h"

namespace {

constexpr const char* kFooter = R"(Prints "applied" or "failed", which "acks" lists too.

Examples:
  overhub push web-1
  overhub push web-1 web-1.xml             (a file that "uploads web-1 --out" has written, or one like it))";

// The records of a file to push to a client instead of its own.
int readFile(const std::string& client, const std::string& file, OBGui::KeyList& keys) {
  std::string text;
  if (const CWmError error = file_access::readWhole(file, text); error.IsError())
    return complain(kExitRefused, error.AsString());
  OBGui::RegistryTaskResp given;
  if (std::string error; given.unserialize(text, &error) != 0)
    return complain(kExitRefused, file + " is not a batch such as \"overhub uploads " + client +
                                      " --out FILE\" writes: " + error);
  keys = std::move(given.keys.edit());
  // An upload holds who its machine is to the server; another machine must not become that one.
  const std::size_t left = std::erase_if(keys, [](const auto& key) {
    return programs::isMachineIdentity(key.keyPath.get(), key.valueName.get());
  });
  if (left != 0) warn(std::to_string(left) + " values that say which machine it is are not pushed");
  return kExitOk;
}

// The batch to push. The client is told its own id, whosever batch the file holds.
int readPushed(const DataStore& store, const std::string& client, const std::string& file,
               OBGui::RegistryTaskResp& batch) {
  const CWmError error = store.readBatch(client, batch);
  if (error.IsError()) return dataUnusable(error);
  batch.taskStatus = OBGui::kTaskSuccess;
  OBGui::KeyList& keys = batch.keys.edit();
  return file.empty() ? kExitOk : readFile(client, file, keys);
}

// The batch of the client, or the one in `file` unless that is empty; records how it went.
int push(const DataStore& store, ClientLink& link, const std::string& file) {
  const std::string& client = link.client();
  if (!store.hasClient(client)) return unknownClient(store, client);
  OBGui::RegistryTaskResp batch;
  if (const int exitCode = readPushed(store, client, file, batch); exitCode != kExitOk) return exitCode;
  OBGui::RegistryTaskResp answer;
  if (const int exitCode = link.ask(store, batch, answer); exitCode != kExitOk) return exitCode;
  const std::int64_t status = answer.taskStatus;
  if (status != OBGui::kTaskSuccess && status != OBGui::kTaskFailed)
    return link.complainOfAnswer("the task status " + std::to_string(status));
  const bool isApplied = status == OBGui::kTaskSuccess;
  print(isApplied ? "applied\n" : "failed\n");
  const CWmError error = recordAcknowledgement(store, client, answer.client->clientId, status);
  if (error.IsError()) return dataUnusable(error);
  return isApplied ? kExitOk : kExitRefused;
}

}  // namespace

void addPush(programs::CommandLine& line, const std::string& data) {
  const auto link = std::make_shared<ClientLink>();
  const auto file = std::make_shared<std::string>();
  auto options =
      line.add("push", "Have a client apply its batch now",
               onExisting(data, [link, file](const DataStore& store) { return push(store, *link, *file); }));
  link->describe(options);
  options.option("FILE", *file, "Another batch than the client's own, which stays as it is").footer(kFooter);
}
