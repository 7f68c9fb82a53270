// The join file: what `overhub add-client` writes and `lqhost join` reads to make a machine a client of a
// server. It holds the client's session key, so it is as secret as the key.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"

namespace programs {

struct JoinFile {
  std::string serverHost;
  std::string serverName;
  std::string clientName;
  std::int64_t clientId = 0;
  std::string sessionKeyHex;
};

// The file's text, as a reader of command-line configuration files takes it. The server's host and name have
// to be acceptable (common/host_name.h).
std::string joinFileText(const JoinFile& join);

// Reads and checks a join file. The error's text may repeat what the file holds.
CWmError readJoinFile(const std::string& path, JoinFile& file);

}  // namespace programs
