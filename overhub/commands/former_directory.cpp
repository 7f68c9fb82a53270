#include "overhub/commands/former_directory.h"

#include <algorithm>
#include <charconv>
#include <cstring>  // explicit_bzero
#include <filesystem>
#include <map>
#include <sstream>

#include "common/file_lock.h"
#include "common/host_name.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LQClient.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/time_argument.h"
#include "overhub/store/client_name.h"
#include "overhub/store/file_access.h"

namespace fs = std::filesystem;

namespace former_directory {

namespace {

constexpr std::string_view kBatchSuffix = ".xml";
constexpr auto kServerId = static_cast<std::int64_t>(kServerClientId);

bool readNumber(std::string_view text, std::int64_t& number) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  return fault == std::errc() && end == text.data() + text.size();
}

std::string placeOf(const OBGui::RegistryKeyInfo& record) {
  return "\"" + record.valueName.get() + "\" in \"" + record.keyPath.get() + "\"";
}

CWmError broken(const std::string& file, const std::string& why) {
  return {kLqErrFile, file + ": " + why};
}

CWmError readMessage(const std::string& file, OBGui::RegistryTaskResp& message) {
  std::string text;
  CWmError error = file_access::readWhole(file, text);
  if (error.IsError()) return error;
  std::string reason;
  return message.unserialize(text, &reason) == 0 ? CWmError() : broken(file, reason);
}

// A batch whose records the store can keep, and can tell what they set and when it ends.
CWmError readBatch(const std::string& file, OBGui::RegistryTaskResp& batch) {
  CWmError error = readMessage(file, batch);
  if (error.IsError()) return error;
  for (const OBGui::RegistryKeyInfo& record : batch.keys.get()) {
    if (record.encryptedValue->isUnreadable())
      return broken(file,
                    "the secret " + placeOf(record) + " was protected with another key than secret.key");
    for (const std::string* const text :
         {&record.keyPath.get(), &record.valueName.get(), &record.valueType.get(), &record.value.get()})
      if (!isText(*text))
        return broken(file, placeOf(record) + " is no text in UTF-8 without control characters");
  }
  std::vector<Setting> settings;
  error = settingsOf(batch.keys.get(), settings);
  return error.IsError() ? broken(file, error.AsString()) : error;
}

CWmError readHost(const std::string& file, std::string& host) {
  host.clear();
  if (!file_access::exists(file)) return {};
  CWmError error = file_access::readWord(file, host);
  if (!error.IsError() && !host.empty() && !programs::isAcceptableHostName(host))
    return broken(file, "this is no host's name or address");
  return error;
}

CWmError readKey(const std::string& file, pstring& key) {
  std::string hex;
  CWmError error = file_access::readWord(file, hex);
  std::string bytes;
  if (!error.IsError() && !sessionKeyFromHex(hex, bytes))
    error = broken(file, "these are not 64 hexadecimal digits");
  if (!error.IsError()) key = pstring(hex);
  explicit_bzero(hex.data(), hex.size());
  explicit_bzero(bytes.data(), bytes.size());
  return error;
}

// "2026-11-22T20:11:08Z id=7 taskStatus=3 (applied)"
bool readAcknowledgement(const std::string& line, Acknowledgement& said) {
  std::istringstream words(line);
  std::string time;
  std::string id;
  std::string status;
  words >> time >> id >> status;
  return !time.empty() && !readFixedTime(time, said.time).IsError() && id.starts_with("id=") &&
         readNumber(std::string_view(id).substr(3), said.namedId) && status.starts_with("taskStatus=") &&
         readNumber(std::string_view(status).substr(11), said.taskStatus);
}

CWmError readAcknowledgements(const std::string& file, FormerClient& client) {
  std::string text;
  if (!file_access::exists(file)) return {};
  CWmError error = file_access::readWhole(file, text);
  if (error.IsError()) return error;
  std::istringstream lines(text);
  std::size_t number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    Acknowledgement said;
    said.client = client.client.name;
    if (!readAcknowledgement(line, said))
      return broken(file + ":" + std::to_string(number), "this is no acknowledgement");
    client.acknowledgements.push_back(said);
  }
  return {};
}

CWmError readUpload(const std::string& file, FormerClient& client) {
  if (!file_access::exists(file)) return {};
  std::uintmax_t bytes = 0;
  std::time_t time = 0;
  CWmError error = file_access::status(file, bytes, time);
  if (!error.IsError()) error = readMessage(file, client.upload.emplace());
  client.uploadTime = time;
  return error;
}

CWmError readClient(const std::string& directory, const std::string& name, FormerClient& client) {
  const std::string file = directory + "/clients/" + name + std::string(kBatchSuffix);
  OBGui::RegistryTaskResp batch;
  CWmError error = readBatch(file, batch);
  if (error.IsError()) return error;
  client.client.name = name;
  client.client.id = batch.client->clientId.get();
  client.records = batch.keys.get();
  if (client.client.id < 1 || client.client.id == kServerId)
    return broken(file, std::to_string(client.client.id) + " is no client's id");
  error = readKey(directory + "/keys/" + name + ".key", client.sessionKey);
  if (!error.IsError()) error = readHost(directory + "/hosts/" + name, client.client.host);
  if (!error.IsError()) error = readHost(directory + "/addresses/" + name, client.address);
  if (!error.IsError()) error = readAcknowledgements(directory + "/acks/" + name + ".log", client);
  if (!error.IsError())
    error = readUpload(directory + "/uploads/" + name + std::string(kBatchSuffix), client);
  return error;
}

CWmError clientNames(const std::string& directory, std::vector<std::string>& names) {
  std::error_code fault;
  const std::string folder = directory + "/clients";
  for (auto entry = fs::directory_iterator(folder, fault); !fault && entry != fs::directory_iterator();
       entry.increment(fault)) {
    const std::string name = entry->path().stem().string();
    if (entry->path().extension() == kBatchSuffix && isClientName(name)) names.push_back(name);
  }
  if (fault) return broken(folder, fault.message());
  std::sort(names.begin(), names.end());
  return {};
}

// The highest id ever given: also that of a client that was taken away since.
CWmError readHighest(const std::string& file, FormerStore& store) {
  store.highestId = kServerId;
  std::string text;
  if (file_access::exists(file)) {
    CWmError error = file_access::readWord(file, text);
    if (!error.IsError() && !readNumber(text, store.highestId)) error = broken(file, "this is no id");
    if (error.IsError()) return error;
  }
  for (const FormerClient& client : store.clients)
    store.highestId = std::max(store.highestId, client.client.id);
  return {};
}

void checkIds(const std::string& directory, const FormerStore& store, std::vector<std::string>& faults) {
  std::map<std::int64_t, std::string> names;
  for (const FormerClient& former : store.clients) {
    const auto [other, isFree] = names.try_emplace(former.client.id, former.client.name);
    if (!isFree) {
      faults.push_back(directory + "/clients/" + former.client.name + std::string(kBatchSuffix) +
                       ": client " + other->second + " has the id " + std::to_string(former.client.id) +
                       ", too");
    }
  }
}

}  // namespace

CWmError open(const std::string& directory) {
  std::error_code fault;
  if (!fs::is_directory(directory + "/clients", fault))
    return {kLqErrRequestRefused,
            directory + " is no data directory of an earlier overhub: it has no \"clients\""};
  CWmError error = FXFile::CheckTrusted(directory);
  if (error.IsError()) return error;
  if (programs::FileLock::isTaken(directory + "/serve.lock"))
    return {kLqErrRequestRefused, "a server runs on " + directory + "; stop it first"};
  pstring::UseKeyFile(directory + "/secret.key");
  OBGui::RegisterSubsystem();
  return pstring::CheckKey();
}

void read(const std::string& directory, FormerStore& store, std::vector<std::string>& faults) {
  const auto note = [&faults](const CWmError& error) {
    if (error.IsError()) faults.emplace_back(error.AsString());
  };
  std::vector<std::string> names;
  note(clientNames(directory, names));
  for (const std::string& name : names) {
    FormerClient client;
    const CWmError error = readClient(directory, name, client);
    note(error);
    if (!error.IsError()) store.clients.push_back(std::move(client));
  }
  checkIds(directory, store, faults);
  note(readHighest(directory + "/ids/highest", store));
  if (const std::string file = directory + "/static.xml"; file_access::exists(file)) {
    OBGui::RegistryTaskResp list;
    note(readBatch(file, list));
    store.staticList = list.keys.get();
  }
}

}  // namespace former_directory
