// The command line: what its options and arguments fill in, and how a command is added to it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "overhub/commands/client_requests.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/serve_command.h"
#include "overhub/commands/set_options.h"
#include "overhub/store/data_store.h"

inline constexpr const char* kDefaultData = "/var/lib/overhub";

struct CommandLine {
  std::string data = kDefaultData;
  NewClient newClient;
  SetOptions set;
  std::string client;
  std::string path;
  std::string name;
  std::vector<std::string> names;
  std::string file;
  std::int64_t messageType = 0;
  std::string payload;
  LinkOptions link;
  ServeOptions serve;
  std::function<int(const DataStore&)> command;
};

CLI::App* addCommand(CLI::App& app, CommandLine& line, const char* name, const char* description,
                     std::function<int(const DataStore&)> command);

// A command on a data directory that has to be there.
std::function<int(const DataStore&)> onExisting(std::function<int(const DataStore&)> command);

// The check that an argument is a number from `lowest` to the highest of 64 bits. One beyond would otherwise
// be taken for the highest.
std::function<std::string(const std::string&)> checkNumber(std::int64_t lowest);

// The commands on uploads, and those that ask something of a client.
void describeUploads(CLI::App& app, CommandLine& line);
void describeRequests(CLI::App& app, CommandLine& line);
