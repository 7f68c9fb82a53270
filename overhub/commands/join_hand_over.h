// The join file that `add-client` and `renew-client` hand over to a client's machine.
#pragma once

#include <string>

#include "common/command_line.h"
#include "common/join_file.h"
#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

class JoinHandOver {
 public:
  // Adds the options that say what stands in the file, and where it is written.
  void describe(programs::CommandLine::Options& options);

  // The file's contents with a new session key, but without the client's id; an exit code, for which it has
  // been said why they cannot be had.
  [[nodiscard]] int begin(const std::string& client, programs::JoinFile& join) const;

  [[nodiscard]] CWmError write(const DataStore& store, const programs::JoinFile& join) const;

  void printNextSteps(const DataStore& store, const programs::JoinFile& join) const;

 private:
  std::string place(const DataStore& store, const programs::JoinFile& join) const;

  std::string serverHost_;  // empty: this machine's host name
  std::string serverName_ = "overhub";
  std::string file_;  // empty: in the data directory
};
