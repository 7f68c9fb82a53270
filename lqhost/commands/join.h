// Joining a management server: reads the join file that the server's administrator handed over, and writes
// what a client needs to know into the registry.
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

// Where the installation lies and what the machine is called; empty texts stand for the defaults.
struct JoinOptions {
  std::string home;     // installation home; default kDefaultHome
  std::string base;     // base directory; default the folder "Base" of the home
  std::string machine;  // physical machine name; default the system's host name
  std::string host;     // client host name; default the machine name
};

inline constexpr const char* kDefaultHome = "/opt/velmor";

// The base directory that joining with these options uses.
std::string baseDirectoryFor(JoinOptions options);

// Reads and checks a join file. False with the reason in `error`.
bool readJoinFile(const std::string& path, JoinFile& file, std::string& error);

// Writes everything as one change, for the instance in focus, creating the directories. False with the
// reason; the registry is then as it was.
bool join(const JoinFile& file, JoinOptions options, std::string& error);

}  // namespace host
