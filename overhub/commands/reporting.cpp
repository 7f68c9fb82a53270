#include "overhub/commands/reporting.h"

#include <cstdio>

#include "common/terminal_text.h"

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

int dataUnusable(const CWmError& error) {
  return complain(kExitDataUnusable, error.AsString());
}

void warn(const std::string& text) {
  std::fprintf(stderr, "overhub: %s\n", programs::escapedForTerminal(text).c_str());
}

int complain(int exitCode, const std::string& text) {
  warn(text);
  return exitCode;
}

int unknownClient(const DataStore& store, const std::string& client) {
  return complain(kExitRefused, "there is no client \"" + client + "\" in " + store.directory() +
                                    "; \"overhub clients\" lists those there are, \"overhub add-client\" "
                                    "adds one");
}
