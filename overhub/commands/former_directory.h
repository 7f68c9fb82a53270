// A data directory of the version before the store was a database: a file for each thing that the server
// knew. It is only read.
//
// clang-format off
//   clients/NAME.xml   a client's id and its records;  static.xml  the static list
//   keys/NAME.key      its session key, 64 hexadecimal digits
//   ids/highest        the highest id that was ever given
//   hosts/NAME, addresses/NAME   where it is to be called, and where it last came from
//   acks/NAME.log      its acknowledgements, a line each;  uploads/NAME.xml  what it last uploaded
//   secret.key         the key that protects the secrets in these files
//   serve.lock         held by its server
// clang-format on
#pragma once

#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/takeover.h"

namespace former_directory {

// An error when the directory is none of these, is in use, or its key is not to be had. Names the key of this
// process.
CWmError open(const std::string& directory);

// All of it; in `faults` what is wrong with it, each with its file.
void read(const std::string& directory, FormerStore& store, std::vector<std::string>& faults);

}  // namespace former_directory
