#include "overhub/data_store.h"

#include <string.h>  // explicit_bzero

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "platform/CLqNetwork.h"
#include "platform/ObDebug.h"

namespace {

constexpr std::size_t kMaxClientName = 64;
constexpr std::string_view kClientNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
constexpr std::string_view kBatchSuffix = ".xml";
constexpr const char* kDirectories[] = {"/clients", "/keys", "/acks", "/join"};

}  // namespace

CWmError DataStore::open() const {
  std::error_code fault;
  if (directory_.empty() || !std::filesystem::is_directory(directory_ + "/clients", fault))
    return {kLqErrFile, directory_ +
                            ": not a data directory; name the right one with --data or OVERHUB_DATA, or make "
                            "one with \"overhub add-client NAME\""};
  pstring::UseKeyFile(directory_ + "/secret.key");
  OBGui::RegisterSubsystem();
  return {};
}

CWmError DataStore::prepare() const {
  CWmError error = file_access::makeDirectory(directory_);
  for (const char* const name : kDirectories)
    if (!error.IsError()) error = file_access::makeDirectory(directory_ + name);
  return error.IsError() ? error : open();
}

std::string DataStore::acknowledgementsFile(const std::string& client) const {
  return directory_ + "/acks/" + client + ".log";
}

std::string DataStore::joinFile(const std::string& client) const {
  return directory_ + "/join/" + client + ".join";
}

std::string DataStore::serveLockFile() const {
  return directory_ + "/serve.lock";
}

std::string DataStore::batchFile(const std::string& name) const {
  if (name == kStaticList) return directory_ + "/static.xml";
  return directory_ + "/clients/" + name + std::string(kBatchSuffix);
}

std::string DataStore::keyFile(const std::string& client) const {
  return directory_ + "/keys/" + client + ".key";
}

bool DataStore::isClientName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxClientName && name[0] != '.' &&
         name.find_first_not_of(kClientNameCharacters) == std::string::npos;
}

bool DataStore::hasClient(const std::string& name) const {
  return isClientName(name) && file_access::exists(batchFile(name));
}

CWmError DataStore::clientNames(std::vector<std::string>& names) const {
  names.clear();
  std::error_code fault;
  const std::string folder = directory_ + "/clients";
  auto entry = std::filesystem::directory_iterator(folder, fault);
  for (const std::filesystem::directory_iterator end; !fault && entry != end; entry.increment(fault)) {
    const std::string file = entry->path().filename().string();
    if (!file.ends_with(kBatchSuffix)) continue;
    const std::string name = file.substr(0, file.size() - kBatchSuffix.size());
    if (isClientName(name)) names.push_back(name);
  }
  if (fault) return {kLqErrFile, folder + ": " + fault.message()};
  std::sort(names.begin(), names.end());
  return {};
}

CWmError DataStore::readBatch(const std::string& name, OBGui::RegistryTaskResp& batch) const {
  const std::string file = batchFile(name);
  if (name == kStaticList && !file_access::exists(file)) {
    batch = OBGui::RegistryTaskResp();
    return {};
  }
  std::string text;
  const CWmError error = file_access::readWhole(file, text);
  if (error.IsError()) return error;
  std::string reason;
  if (batch.unserialize(text, &reason) != 0) return {kLqErrFile, file + ": " + reason};
  return {};
}

CWmError DataStore::writeBatch(const std::string& name, const OBGui::RegistryTaskResp& batch) const {
  std::string text;
  if (batch.serializeForPeople(text) != 0)
    return {kLqErrFile, batchFile(name) + ": not written, since its secrets cannot be protected with " +
                            directory_ + "/secret.key"};
  return file_access::replace(batchFile(name), text);
}

bool DataStore::findSessionKey(const std::string& client, std::string& key) const {
  constexpr const char* kTag = "DataStore::findSessionKey";
  if (!hasClient(client)) {
    ObEvent().Debug(kTag, "a caller says that it is \"%s\", which is no client here", client.c_str());
    return false;
  }
  std::string hex;
  const CWmError error = file_access::readWhole(keyFile(client), hex);
  while (!hex.empty() && (hex.back() == '\n' || hex.back() == '\r' || hex.back() == ' ')) hex.pop_back();
  const bool usable = !error.IsError() && sessionKeyFromHex(hex, key);
  explicit_bzero(hex.data(), hex.size());
  if (error.IsError()) {
    ObEvent().Error(kTag, "client %s cannot be let in: %s", client.c_str(), error.AsString());
  } else if (!usable) {
    ObEvent().Error(kTag, "client %s cannot be let in: %s does not hold 64 hexadecimal digits",
                    client.c_str(), keyFile(client).c_str());
  }
  return usable;
}

CWmError DataStore::writeSessionKey(const std::string& client, const std::string& hex) const {
  return file_access::replace(keyFile(client), hex + '\n');
}

CWmError DataStore::lockForChange(file_access::Lock& lock) const {
  return lock.acquire(directory_ + "/change.lock");
}
