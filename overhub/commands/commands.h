// What overhub's commands do, the server itself excepted (serve_command.h). Results go to standard output,
// complaints to standard error; each command gives the program's exit code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "overhub/store/batch_edit.h"
#include "overhub/store/data_store.h"

struct NewClient {
  std::string name;
  std::optional<std::int64_t> id;  // otherwise the highest handed out plus 1
  std::string serverHost;          // empty: this machine's host name
  std::string serverName;
  std::string joinFile;  // empty: in the data directory
};

int addClient(const DataStore& store, const NewClient& wanted);

// A new session key and join file for a client that is registered; its id and batch stay, its old key is
// worth nothing from now on. The id of `wanted` is not used.
int renewClient(const DataStore& store, const NewClient& wanted);

// `client` is a client's name or DataStore::kStaticList, here and below.
int changeRecord(const DataStore& store, const std::string& client, const RecordChange& change);
int removeRecord(const DataStore& store, const std::string& client, const std::string& path,
                 const std::string& name);
int showBatch(const DataStore& store, const std::string& client);

int listClients(const DataStore& store);
// Of one client, or of all when `client` is empty.
int listAcknowledgements(const DataStore& store, const std::string& client);
