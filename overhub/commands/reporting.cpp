#include "overhub/commands/reporting.h"

#include <cstdio>

#include "common/text_table.h"
#include "overhub/commands/exit_codes.h"

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int dataUnusable(const CWmError& error) {
  return complain(kExitDataUnusable, error.AsString());
}

int complain(int exitCode, const std::string& text) {
  std::fprintf(stderr, "overhub: %s\n", programs::escapedForTerminal(text).c_str());
  return exitCode;
}

int unknownClient(const DataStore& store, const std::string& client) {
  return complain(kExitRefused, "there is no client \"" + client + "\" in " + store.directory() +
                                    "; \"overhub clients\" lists those there are, \"overhub add-client\" "
                                    "adds one");
}
