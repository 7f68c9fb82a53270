// lqreg: looks at the registry of this machine and changes it, for people and for scripts. Each command has a
// file of its own.
#include <cstdio>
#include <exception>

#include "common/program_start.h"
#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObLog.h"

namespace {

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
4 the file of an export or import, or standard output, cannot be used.)";

struct Settings {
  std::string file;
  std::string instance;
};

void describe(programs::CommandLine& line, Settings& settings, LQPlatformInfo& registry) {
  line.options()
      .option("--registry", settings.file,
              "The registry file; otherwise that of VELMOR_REGISTRY, otherwise " +
                  std::string(lqregistry::kDefaultFile))
      .option("--instance", settings.instance, "The installation instance")
      .fromEnvironment(lqsettings::kInstanceVariable);
  addGet(line, registry);
  addSet(line, registry);
  addDelete(line, registry);
  addList(line, registry);
  addTree(line, registry);
  addExport(line, registry);
  addImport(line, registry);
}

}  // namespace

int main(int argc, char** argv) try {
  programs::beginProgram();
  Settings settings;
  LQPlatformInfo registry;
  programs::CommandLine line("lqreg", "Looks at the product registry of this machine and changes it.",
                             kFooter);
  describe(line, settings, registry);
  if (const auto exitCode = line.parse(argc, argv)) return *exitCode;

  if (!settings.file.empty()) lqregistry::UseFile(settings.file);
  if (const CWmError error = programs::becomeServiceUser({lqregistry::File()}); error.IsError())
    return complain(kExitUnavailable, error.AsString());
  // What the library logs comes back as the reason of the failed call, which is printed once.
  oblog::Settings quiet;
  quiet.toStandardError = false;
  static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
  registry.setFocus(settings.instance);
  const int exitCode = line.run();
  static_cast<void>(std::fflush(stdout));  // the error indicator tells of any write, this one included
  if (std::ferror(stdout) == 0) return exitCode;
  return complain(kExitFile, "standard output cannot be written");
} catch (const std::exception& error) {
  return complain(kExitUnavailable, std::string("not enough memory, in all likelihood: ") + error.what());
}
