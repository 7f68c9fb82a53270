// The join file that a server's administrator hands over: what a client needs to know to talk to that server.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// What the join file says. The session key is a secret.
struct JoinFile {
  std::string serverHost;
  std::string serverName;
  std::string clientName;
  std::uint64_t clientId = 0;
  std::string sessionKey;  // hexadecimal
};

// Reads and checks a join file. False with the reason in `error`, which may repeat what the file holds.
bool readJoinFile(const std::string& path, JoinFile& file, std::string& error);

}  // namespace host
