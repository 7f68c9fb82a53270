// The join files that `add-client` and `renew-client` hand over to clients' machines.
//
// A file that was named is made, empty, before the store is changed, and filled after it; a directory is made
// then, too: a place that cannot be written is noticed while nothing has happened yet.
#pragma once

#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/join_file.h"
#include "lqregistry/CWmError.h"
#include "overhub/store/store.h"

class JoinHandOver {
 public:
  // Adds the options that say what stands in the files, and where they are written.
  void describe(programs::CommandLine::Options options);

  // Whether all that is handed over goes into one file, which has room for one client.
  bool isOneFile() const { return !file_.empty(); }

  // The contents for a client, with a new session key, but without its id. kLqErrArgument for what the
  // command line says wrong, kLqErrRequestRefused for a file that is there.
  CWmError begin(const Store& store, const std::string& client, programs::JoinFile& join);
  CWmError write(const Store& store, const programs::JoinFile& join) const;
  // The same for many.
  CWmError write(const Store& store, const std::vector<programs::JoinFile>& joins) const;
  // Takes back what begin() made, and nothing else.
  void discard();

  // What to do with the file, for one client.
  void printNextSteps(const Store& store, const programs::JoinFile& join) const;
  std::string place(const Store& store, const std::string& client) const;

 private:
  std::string serverHost_;  // empty: this machine's host name
  std::string serverName_ = "overhub";
  std::string file_;    // empty: NAME.join in the directory
  std::string folder_;  // empty: the store's own
  bool isFileMade_ = false;
};
