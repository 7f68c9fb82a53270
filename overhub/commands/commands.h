// The commands of overhub. Each adds its description and its options to the command line, with what it does;
// see the file of the same name. `data` is the data directory, which is known once the line is parsed.
#pragma once

#include <string>

#include "common/command_line.h"

void addServe(programs::CommandLine& line, const std::string& data);
void addAddClient(programs::CommandLine& line, const std::string& data);
void addRenewClient(programs::CommandLine& line, const std::string& data);
void addSet(programs::CommandLine& line, const std::string& data);
void addUnset(programs::CommandLine& line, const std::string& data);
void addShow(programs::CommandLine& line, const std::string& data);
void addClients(programs::CommandLine& line, const std::string& data);
void addAcks(programs::CommandLine& line, const std::string& data);
void addUploads(programs::CommandLine& line, const std::string& data);
void addClientHost(programs::CommandLine& line, const std::string& data);
void addPush(programs::CommandLine& line, const std::string& data);
void addFetch(programs::CommandLine& line, const std::string& data);
void addCall(programs::CommandLine& line, const std::string& data);
