// The commands that ask something of a client without waiting for it to call, and the one that says where it
// is. Each gives the program's exit code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "overhub/commands/client_link.h"
#include "overhub/store/data_store.h"

// Records where the client is to be called from now on.
int setClientHost(const DataStore& store, const std::string& client, const std::string& host);

// Has the client apply its batch now, or the one in `file` unless that is empty, and records how it went.
int pushBatch(const DataStore& store, const std::string& client, const std::string& file,
              const LinkOptions& options);

// Prints values of one key of the client's registry.
int fetchValues(const DataStore& store, const std::string& client, const std::string& path,
                const std::vector<std::string>& names, const LinkOptions& options);

// What stands for a payload that comes from standard input.
inline constexpr const char* kFromInput = "-";

// Hands a message to whatever the client has registered for its type, and prints the answer's payload.
int callClient(const DataStore& store, const std::string& client, std::int64_t messageType,
               std::string payload, const LinkOptions& options);
