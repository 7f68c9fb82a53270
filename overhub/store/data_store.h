// The data directory: what the server knows of its clients, in files that a person can read and edit.
//
// clang-format off
//   clients/NAME.xml   a client's id and its batch of key records
//   static.xml         the static key list; no file means an empty one
//   keys/NAME.key      a client's session key, 64 hexadecimal digits
//   ids/ID             the name of the client that has the id, and ids/highest (client_ids.h)
//   acks/NAME.log      a line for each acknowledgement (acknowledgements.h)
//   join/NAME.join     join files, unless they were asked for elsewhere (join_file.h)
//   uploads/NAME.xml   what a client last uploaded of its registry
//   hosts/NAME         where a client is to be called, when a person has said so
//   addresses/NAME     the address that a client last came from
//   secret.key         the key that protects secrets in the other files; never replaced
//   change.lock, serve.lock   held while files are changed, and by the server
// clang-format on
//
// Files are read anew each time, so that an edit counts from the next request on, and replaced at once.
// Whoever reads a file to write it back holds the lock of lockForChange meanwhile. An object is the
// directory's path and nothing else; any thread.
#pragma once

#include <string>
#include <vector>

#include "common/file_lock.h"
#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"
#include "overhub/store/file_access.h"

class DataStore {
 public:
  // The name under which commands address the static key list; no client can have it.
  static constexpr const char* kStaticList = "@static";

  explicit DataStore(std::string directory) : directory_(std::move(directory)) {}

  // Names the protection key of this process. An error when the directory is not there.
  CWmError open() const;
  // The same; what is missing of the directory is created.
  CWmError prepare() const;

  const std::string& directory() const { return directory_; }
  std::string acknowledgementsFile(const std::string& client) const;
  std::string joinFile(const std::string& client) const;
  std::string uploadFile(const std::string& client) const;
  std::string idFile(const std::string& id) const;
  std::string serveLockFile() const;

  bool hasClient(const std::string& name) const;
  // The clients' names, ascending.
  CWmError clientNames(std::vector<std::string>& names) const;

  // The batch of a client, or of kStaticList.
  CWmError readBatch(const std::string& name, OBGui::RegistryTaskResp& batch) const;
  CWmError writeBatch(const std::string& name, const OBGui::RegistryTaskResp& batch) const;

  // A client's newest upload; the one before it is replaced.
  CWmError readUpload(const std::string& client, OBGui::RegistryTaskResp& upload) const;
  CWmError writeUpload(const std::string& client, const OBGui::RegistryTaskResp& upload) const;

  // The host that a person has set for a client, and the address that it last came from; empty when there is
  // none.
  CWmError readHost(const std::string& client, std::string& host) const;
  CWmError readAddress(const std::string& client, std::string& address) const;
  CWmError setHost(const std::string& client, const std::string& host) const;
  // Writes only when the address is another one than before.
  CWmError recordAddress(const std::string& client, const std::string& address) const;

  // A client's session key as bytes, into `key`; false, with the reason in the log, when there is none that
  // can be used.
  bool findSessionKey(const std::string& client, std::string& key) const;
  // The same as 64 hexadecimal digits, for the caller to wipe.
  CWmError readSessionKey(const std::string& client, std::string& hex) const;
  CWmError writeSessionKey(const std::string& client, const std::string& hex) const;

  // Taken for every change of a file that is made from what the file held before.
  CWmError lockForChange(programs::FileLock& lock) const;

 private:
  bool isStore() const;
  std::string secretKeyFile() const;
  // The key comes before the first directory that makes the store, so that no store is ever without one.
  CWmError makeKey() const;
  std::string batchFile(const std::string& name) const;
  std::string keyFile(const std::string& client) const;
  std::string hostFile(const std::string& client) const;
  std::string addressFile(const std::string& client) const;
  CWmError writeMessage(const std::string& file, const OBGui::RegistryTaskResp& message) const;

  std::string directory_;
};
