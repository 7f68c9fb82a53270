// The command line of `set`, and the record change that it asks for.
#pragma once

#include <optional>
#include <string>

#include "overhub/store/batch_edit.h"

struct SetOptions {
  std::string client;
  std::string path;
  std::string name;
  std::optional<std::string> value;
  std::string type = kTypeString;
  bool isSecret = false;  // the value comes from standard input
  bool isRemoval = false;
  bool isDisabled = false;
  std::string until;  // seconds since the epoch, or +SECONDS from now; empty: none
};

// Makes `change` of the options, reading the secret if there is one. Empty, or why it cannot be done.
std::string changeFromOptions(const SetOptions& options, RecordChange& change);
