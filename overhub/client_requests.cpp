#include "overhub/client_requests.h"

#include <map>
#include <utility>

#include "overhub/acknowledgements.h"
#include "overhub/batch_edit.h"
#include "overhub/exit_codes.h"
#include "overhub/join_file.h"
#include "overhub/reporting.h"
#include "platform/CLqNetwork.h"
#include "programs/text_table.h"
#include "records/App.h"

namespace {

constexpr const char* kAbsolutePath = "SOFTWARE/";
constexpr char kInstanceRoot = '~';

// The batch to push. The client is told its own id, whoever's batch the file holds.
int readPushed(const DataStore& store, const std::string& client, const std::string& file,
               OBGui::RegistryTaskResp& batch) {
  CWmError error = store.readBatch(client, batch);
  if (error.IsError()) return dataUnusable(error);
  if (!file.empty()) {
    OBGui::RegistryTaskResp given;
    std::string text;
    std::string reason;
    error = file_access::readWhole(file, text);
    if (error.IsError()) return complain(kExitRefused, error.AsString());
    if (given.unserialize(text, &reason) != 0)
      return complain(kExitRefused, file + " is not a batch such as \"overhub uploads " + client +
                                        " --out FILE\" writes: " + reason);
    batch.keys = given.keys.get();
  }
  batch.taskStatus = OBGui::kTaskSuccess;
  batch.keys.edit();
  return kExitOk;
}

App::FetchClientRegistry fetchOf(const std::string& path, const std::vector<std::string>& names) {
  App::FetchClientRegistry request;
  for (const std::string& name : names) {
    App::RegistryKeyInfo& key = request.keyInfo.edit().keys.edit().emplace_back();
    // The client puts the mark of its root in front.
    key.keyPath = path.substr(path.starts_with(kInstanceRoot) ? 1 : 0);
    key.valueName = name;
    key.valueType = std::string(kTypeString);
  }
  return request;
}

// The values that there are, by their names.
std::map<std::string, std::string> valuesOf(const App::FetchClientRegistry& answer) {
  std::map<std::string, std::string> values;
  for (const App::RegistryKeyInfo& key : answer.keyInfo->keys.get())
    if (key.value.isSet()) values[key.valueName] = key.value;
  return values;
}

int readPayload(std::string& payload) {
  if (payload == kFromInput) {
    CWmError error = file_access::readInput(kMaxMessageFrameBytes, payload);
    if (error.IsError()) return complain(kExitUsage, error.AsString());
  }
  if (payload.find('\0') != std::string::npos)
    return complain(kExitUsage, "a payload cannot hold NUL; encode it, in base64 for instance");
  return kExitOk;
}

}  // namespace

int setClientHost(const DataStore& store, const std::string& client, const std::string& host) {
  if (!fitsJoinFile(host)) return complain(kExitUsage, "\"" + host + "\" is no host name or address");
  if (!store.hasClient(client)) return unknownClient(store, client);
  CWmError error = store.prepare();
  if (!error.IsError()) error = store.setHost(client, host);
  return error.IsError() ? dataUnusable(error) : kExitOk;
}

int pushBatch(const DataStore& store, const std::string& client, const std::string& file,
              const LinkOptions& options) {
  if (!store.hasClient(client)) return unknownClient(store, client);
  OBGui::RegistryTaskResp batch;
  int exitCode = readPushed(store, client, file, batch);
  if (exitCode != kExitOk) return exitCode;
  OBGui::RegistryTaskResp answer;
  ClientLink link(store, client, options);
  exitCode = link.ask(batch, answer);
  if (exitCode != kExitOk) return exitCode;
  const std::int64_t status = answer.taskStatus;
  if (status != OBGui::kTaskSuccess && status != OBGui::kTaskFailed)
    return link.complainOfAnswer("the task status " + std::to_string(status));
  const bool isApplied = status == OBGui::kTaskSuccess;
  print(isApplied ? "applied\n" : "failed\n");
  CWmError error = recordAcknowledgement(store, client, answer.client->clientId, status);
  if (error.IsError()) return dataUnusable(error);
  return isApplied ? kExitOk : kExitRefused;
}

int fetchValues(const DataStore& store, const std::string& client, const std::string& path,
                const std::vector<std::string>& names, const LinkOptions& options) {
  if (path.starts_with(kAbsolutePath))
    return complain(kExitUsage, "a client hands out only what is below the root of its instance, and \"" +
                                    path + "\" is not");
  if (!store.hasClient(client)) return unknownClient(store, client);
  App::RegisterSubsystem();
  App::FetchClientRegistry answer;
  const int exitCode = ClientLink(store, client, options).ask(fetchOf(path, names), answer);
  if (exitCode != kExitOk) return exitCode;

  const std::map<std::string, std::string> values = valuesOf(answer);
  programs::TextTable table({"NAME", "VALUE"});
  bool isWhole = true;
  for (const std::string& name : names) {
    const auto found = values.find(name);
    isWhole = isWhole && found != values.end();
    table.addRow({name, found != values.end() ? found->second : "not found"});
  }
  print(table.text());
  if (isWhole) return kExitOk;
  if (names.size() > 1) {
    complain(
        kExitRefused,
        "a value that is longer than one asked for before it is left out by the client; ask on its own for "
        "what should be there");
  }
  return kExitRefused;
}

int callClient(const DataStore& store, const std::string& client, std::int64_t messageType,
               std::string payload, const LinkOptions& options) {
  if (!store.hasClient(client)) return unknownClient(store, client);
  int exitCode = readPayload(payload);
  if (exitCode != kExitOk) return exitCode;
  App::RegisterSubsystem();
  App::AppCommunicationMessageReq request;
  request.messageType = messageType;
  request.payload = std::move(payload);
  App::AppCommunicationMessageResp answer;
  ClientLink link(store, client, options);
  exitCode = link.ask(request, answer);
  if (exitCode != kExitOk) return exitCode;
  App::GenericResp fault;
  if (fault.unserialize(answer.payload) == 0)
    return complain(kExitRefused, link.place() + ": " + fault.errorText.get() + " (error " +
                                      std::to_string(fault.errorCode.get()) + ")");
  print(answer.payload.get() + '\n');
  return kExitOk;
}
