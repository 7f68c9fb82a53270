// lqreg: looks at the registry of this machine and changes it, for people and for scripts.
//
// The command line is here; what each command does is in registry_commands.cpp, export.cpp and import.cpp.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>

#include "common/program_start.h"
#include "common/text_table.h"
#include "lqreg/registry_commands.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObLog.h"

namespace {

constexpr const char* kInstanceVariable = "VELMOR_VM";

constexpr const char* kFooter = R"(
Keys: "SOFTWARE/..." is absolute; "~A/B", "~/A/B" and "A/B" are below the root of the instance, which is "~".
Quote "~", or the shell puts your home directory in its place.

Examples:
  lqreg --instance Instance001 list '~'
  lqreg --instance Instance001 get Overhub sOHHOSTNAME
  lqreg --instance Instance001 set '~/EventManager' dOBLOGDIR /var/log/velmor
  lqreg --instance Instance001 set Limits nOFFSET -- -5
  lqreg delete SOFTWARE/Velmor/Clients/client42 --recursive
  lqreg tree SOFTWARE
  lqreg --instance Instance001 export saved.xml
  lqreg --instance Instance001 import saved.xml

An export holds everything below the root of the instance as it is stored, secrets included: keep it safe.
Protected values ("V8:...") are of use only on a machine with the same protection key. An import adds and
changes; it removes nothing, skips records that are marked for removal, and takes all paths as below the
root. It reads a client's upload as the server stores it, too.

Exit codes: 0 done, 1 no such key or value, 2 wrong usage, 3 the registry file cannot be used,
4 the file of an export or import cannot be used.)";

struct CommandLine {
  std::string file;
  std::string instance;
  std::string key;
  std::optional<std::string> name;
  std::string value;
  std::string batchFile;
  bool recursive = false;
  std::function<int(RegistryCommands&)> command;
};

CLI::App* addCommand(CLI::App& app, CommandLine& line, const char* name, const char* description,
                     std::function<int(RegistryCommands&)> command) {
  CLI::App* added = app.add_subcommand(name, description);
  added->fallthrough();
  added->callback([&line, command = std::move(command)] { line.command = command; });
  return added;
}

void describeGlobals(CLI::App& app, CommandLine& line) {
  app.footer(kFooter);
  app.require_subcommand(1);
  app.add_option("--registry", line.file,
                 "The registry file; otherwise that of VELMOR_REGISTRY, otherwise " +
                     std::string(lqregistry::kDefaultFile));
  app.add_option("--instance", line.instance, "The installation instance")->envname(kInstanceVariable);
}

void describeCommands(CLI::App& app, CommandLine& line) {
  auto* get = addCommand(app, line, "get", "Print a value's data",
                         [&line](RegistryCommands& registry) { return registry.get(line.key, *line.name); });
  get->add_option("KEY", line.key, "The key")->required();
  get->add_option("NAME", line.name, "The value's name")->required();

  auto* set = addCommand(
      app, line, "set", "Write a value; the key is created if need be",
      [&line](RegistryCommands& registry) { return registry.set(line.key, *line.name, line.value); });
  set->add_option("KEY", line.key, "The key")->required();
  set->add_option("NAME", line.name, "The value's name")->required();
  set->add_option("VALUE", line.value, "The data, as text")->required();

  auto* remove =
      addCommand(app, line, "delete", "Remove a value, or a key", [&line](RegistryCommands& registry) {
        return line.name ? registry.removeValue(line.key, *line.name)
                         : registry.removeKey(line.key, line.recursive);
      });
  remove->add_option("KEY", line.key, "The key")->required();
  auto* name = remove->add_option("NAME", line.name, "The value's name; without it, the key is removed");
  remove->add_flag("--recursive", line.recursive, "Remove the key's values and sub-keys too")->excludes(name);

  auto* list = addCommand(app, line, "list", "Print a key's values and the names of its sub-keys",
                          [&line](RegistryCommands& registry) { return registry.list(line.key); });
  list->add_option("KEY", line.key, "The key")->required();

  auto* tree = addCommand(app, line, "tree", "Print everything below a key",
                          [&line](RegistryCommands& registry) { return registry.tree(line.key); });
  tree->add_option("KEY", line.key,
                   "The key; otherwise the instance's root, or SOFTWARE when there is no instance");
}

void describeTransfers(CLI::App& app, CommandLine& line) {
  auto* exporting =
      addCommand(app, line, "export", "Write all keys and values of the instance to a file",
                 [&line](RegistryCommands& registry) { return registry.exportTo(line.batchFile); });
  exporting->add_option("FILE", line.batchFile,
                        "The file, replaced if it is there; without it, standard output");

  auto* importing =
      addCommand(app, line, "import", "Write the keys and values of a file into the instance",
                 [&line](RegistryCommands& registry) { return registry.importFrom(line.batchFile); });
  importing->add_option("FILE", line.batchFile, "A file that export wrote, or a client's upload")->required();
}

int run(int argc, char** argv) {
  CLI::App app("Looks at the product registry of this machine and changes it.");
  CommandLine line;
  describeGlobals(app, line);
  describeCommands(app, line);
  describeTransfers(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitDone : kExitUsage;
  }

  if (!line.file.empty()) lqregistry::UseFile(line.file);
  if (const CWmError error = programs::becomeServiceUser({lqregistry::File()}); error.IsError()) {
    complainAbout(error.AsString());
    return kExitUnavailable;
  }
  // What the library logs comes back as the reason of the failed call, which is printed once.
  oblog::Settings quiet;
  quiet.toStandardError = false;
  oblog::Configure(quiet);
  RegistryCommands registry(line.instance);
  return line.command(registry);
}

}  // namespace

int main(int argc, char** argv) {
  programs::beginProgram();
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lqreg: %s\n", programs::escapedForTerminal(error.what()).c_str());
    return kExitUnavailable;
  }
}
