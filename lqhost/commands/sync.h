// `lqhost sync`: one synchronisation now, and a report of what it did.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace host {

struct SyncOptions {
  // Pairs of key path and value name, spelled as the server's records spell them, to register a callback for.
  std::vector<std::pair<std::string, std::string>> watched;
};

// Runs the product's timer task once for the instance in focus and prints the report; the program's exit
// code.
int sync(const SyncOptions& options);

}  // namespace host
