#include "overhub/commands/client_requests.h"

#include <unistd.h>

#include <string_view>
#include <utility>

#include "common/join_file.h"
#include "common/machine_identity.h"
#include "common/text_table.h"
#include "lqregistry/App.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/batch_edit.h"

namespace {

constexpr const char* kAbsolutePath = "SOFTWARE/";
constexpr char kInstanceRoot = '~';
// A client cannot tell the server which of the two it is.
constexpr const char* kNotFetched = "not there, or 1,024 bytes or more";

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
    // An upload holds who its machine is to the server; another machine must not become that one.
    OBGui::KeyList& keys = given.keys.edit();
    const std::size_t left = std::erase_if(keys, [](const auto& key) {
      return programs::isMachineIdentity(key.keyPath.get(), key.valueName.get());
    });
    if (left != 0)
      complain(kExitOk, std::to_string(left) + " values that say which machine it is are not pushed");
    batch.keys = std::move(keys);
  }
  batch.taskStatus = OBGui::kTaskSuccess;
  batch.keys.edit();
  return kExitOk;
}

// A fetch of one value. A client has room for a value only as far as the shorter ones before it in the same
// fetch left some, so each is asked for on its own.
App::FetchClientRegistry fetchOf(const std::string& path, const std::string& name) {
  App::FetchClientRegistry request;
  App::RegistryKeyInfo& key = request.keyInfo.edit().keys.edit().emplace_back();
  // The client puts the mark of its root in front.
  key.keyPath = path.substr(path.starts_with(kInstanceRoot) ? 1 : 0);
  key.valueName = name;
  key.valueType = std::string(kTypeString);
  return request;
}

// A payload for people: the breaks between its lines are all that a terminal gets to act on. A program that
// reads it from a pipe gets it as it came.
std::string linesForTerminal(std::string_view payload) {
  std::string lines;
  for (;;) {
    const std::size_t end = payload.find('\n');
    lines += programs::escapedForTerminal(payload.substr(0, end));
    if (end == std::string_view::npos) return lines;
    lines += '\n';
    payload.remove_prefix(end + 1);
  }
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
  if (!programs::fitsJoinFile(host))
    return complain(kExitUsage, "\"" + host + "\" is no host name or address");
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
  programs::TextTable table({"NAME", "VALUE"});
  bool isWhole = true;
  for (const std::string& name : names) {
    App::FetchClientRegistry answer;
    const int exitCode = ClientLink(store, client, options).ask(fetchOf(path, name), answer);
    if (exitCode != kExitOk) return exitCode;
    const App::KeyList& found = answer.keyInfo->keys;
    const bool isFound = !found.empty() && found[0].value.isSet();
    isWhole = isWhole && isFound;
    table.addRow({name, isFound ? found[0].value.get() : kNotFetched});
  }
  print(table.text());
  if (isWhole) return kExitOk;
  return complain(kExitRefused,
                  "a fetch has no room for longer values; `lqhost upload` on the client brings those "
                  "of up to 10,239 bytes");
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
  const bool isForPeople = ::isatty(STDOUT_FILENO) != 0;
  print((isForPeople ? linesForTerminal(answer.payload.get()) : answer.payload.get()) + '\n');
  return kExitOk;
}
