#include "overhub/store/data_store.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/ObDebug.h"
#include "overhub/store/client_name.h"

namespace {

constexpr std::string_view kBatchSuffix = ".xml";
// What makes a directory a store.
constexpr const char* kClients = "/clients";
constexpr const char* kDirectories[] = {kClients, "/keys",    "/ids",   "/acks",
                                        "/join",  "/uploads", "/hosts", "/addresses"};

CWmError readMessage(const std::string& file, OBGui::RegistryTaskResp& message) {
  std::string text;
  CWmError error = file_access::readWhole(file, text);
  if (error.IsError()) return error;
  std::string reason;
  if (message.unserialize(text, &reason) != 0) return {kLqErrFile, file + ": " + reason};
  return {};
}

// The word that the file holds; none when there is no file.
CWmError readWordIfAny(const std::string& path, std::string& word) {
  word.clear();
  return file_access::exists(path) ? file_access::readWord(path, word) : CWmError();
}

}  // namespace

CWmError DataStore::open() const {
  if (!isStore()) {
    return {kLqErrFile, directory_ +
                            ": not a data directory; name the right one with --data or OVERHUB_DATA, or make "
                            "one with \"overhub add-client NAME\""};
  }
  // What others could have put here would be handed to every client.
  CWmError error = FXFile::CheckTrusted(directory_);
  if (error.IsError()) return error;
  pstring::UseKeyFile(secretKeyFile());
  OBGui::RegisterSubsystem();
  return {};
}

CWmError DataStore::prepare() const {
  CWmError error = file_access::makeDirectory(directory_);
  if (!error.IsError()) error = FXFile::CheckTrusted(directory_);
  if (!error.IsError()) error = makeKey();
  for (const char* const name : kDirectories)
    if (!error.IsError()) error = file_access::makeDirectory(directory_ + name);
  return error.IsError() ? error : open();
}

CWmError DataStore::makeKey() const {
  programs::FileLock lock;
  CWmError error = lockForChange(lock);
  if (error.IsError() || isStore() || file_access::exists(secretKeyFile())) return error;
  return pstring::CreateKeyFile(secretKeyFile());
}

bool DataStore::isStore() const {
  std::error_code fault;
  return !directory_.empty() && std::filesystem::is_directory(directory_ + kClients, fault);
}

std::string DataStore::secretKeyFile() const {
  return directory_ + "/secret.key";
}

std::string DataStore::acknowledgementsFile(const std::string& client) const {
  return directory_ + "/acks/" + client + ".log";
}

std::string DataStore::joinFile(const std::string& client) const {
  return directory_ + "/join/" + client + ".join";
}

std::string DataStore::uploadFile(const std::string& client) const {
  return directory_ + "/uploads/" + client + std::string(kBatchSuffix);
}

std::string DataStore::idFile(const std::string& id) const {
  return directory_ + "/ids/" + id;
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

std::string DataStore::hostFile(const std::string& client) const {
  return directory_ + "/hosts/" + client;
}

std::string DataStore::addressFile(const std::string& client) const {
  return directory_ + "/addresses/" + client;
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
    const std::filesystem::path& file = entry->path();
    const std::string name = file.stem().string();
    if (file.extension() == kBatchSuffix && isClientName(name)) names.push_back(name);
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
  return readMessage(file, batch);
}

CWmError DataStore::writeBatch(const std::string& name, const OBGui::RegistryTaskResp& batch) const {
  return writeMessage(batchFile(name), batch);
}

CWmError DataStore::readUpload(const std::string& client, OBGui::RegistryTaskResp& upload) const {
  return readMessage(uploadFile(client), upload);
}

CWmError DataStore::writeUpload(const std::string& client, const OBGui::RegistryTaskResp& upload) const {
  return writeMessage(uploadFile(client), upload);
}

CWmError DataStore::writeMessage(const std::string& file, const OBGui::RegistryTaskResp& message) const {
  std::string text;
  if (message.serializeForPeople(text) != 0)
    return {kLqErrFile,
            file + ": not written, since its secrets cannot be protected with " + secretKeyFile()};
  return file_access::replace(file, text);
}

CWmError DataStore::readHost(const std::string& client, std::string& host) const {
  return readWordIfAny(hostFile(client), host);
}

CWmError DataStore::readAddress(const std::string& client, std::string& address) const {
  return readWordIfAny(addressFile(client), address);
}

CWmError DataStore::setHost(const std::string& client, const std::string& host) const {
  return file_access::replace(hostFile(client), host + '\n');
}

CWmError DataStore::recordAddress(const std::string& client, const std::string& address) const {
  const std::string file = addressFile(client);
  std::string before;
  if (!readWordIfAny(file, before).IsError() && before == address) return {};
  return file_access::replace(file, address + '\n');
}

CWmError DataStore::lockForChange(programs::FileLock& lock) const {
  lock = programs::FileLock::waitFor(directory_ + "/change.lock");
  return lock.error();
}
