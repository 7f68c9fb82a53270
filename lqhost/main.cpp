// lqhost: the host service of a client machine. The process is set up here; each command has its own file.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "common/log_options.h"
#include "common/program_start.h"
#include "common/terminal_text.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/log_file.h"
#include "lqhost/pass/wire_watch.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kDefaultInstance = "Instance001";

constexpr const char* kFooter = R"(
While a resident host (run) serves the instance, sync, refresh and upload are carried out there.

Examples:
  lqhost join client42.join --home /opt/velmor
  lqhost sync
  lqhost sync --fresh
  lqhost sync --watch Machine/Settings nTraceLevel
  lqhost --log-level 10 --log-file - refresh
  lqhost run --sync-every 3600
  lqhost status
  lqhost explain Machine/Settings nTraceLevel
  lqhost rollback

Exit codes: 0 done, 1 failed (no batch was received, nothing was uploaded, the host could not start, or does not
answer), 2 wrong usage or join file, 3 not joined or the registry cannot be used, 4 not everything could be
applied or uploaded, 5 skipped (synchronisation is switched off, or joining not finished), 6 values differ from
the cache, 7 the settings cache could not be written, 8 the settings cache was kept, because it holds more
records than the server's reply (sync --fresh drops it), 9 the server has not recorded the acknowledgement, 10 the
settings cache cannot be read and was not replaced, 11 a batch was not applied, because this machine went back from
it (history tells why), or could not go back from it. Where several hold, sync and refresh end with the first of 11, 1,
5, 4, 7, 10, 8, 9, status with the first of 3, 7, 10, 8, 6, 11, 9, 1.)";

struct Settings {
  std::string registry;
  std::string instance = kDefaultInstance;
  programs::LogOptions log;
};

void describe(programs::CommandLine& line, Settings& settings) {
  line.options()
      .option("--registry", settings.registry,
              "The registry file; otherwise that of VELMOR_REGISTRY, otherwise " +
                  std::string(lqregistry::kDefaultFile))
      .option("--instance", settings.instance, "The installation instance")
      .fromEnvironment(lqsettings::kInstanceVariable)
      .bounded("--log-level", settings.log.level, 0, programs::kMaxLogLevel, "Highest level that is logged")
      .option("--log-file", settings.log.file,
              "Log into this file, rotated; - is standard error. Otherwise lqhost.log (of run) or "
              "lqhost-command.log in the log directory, once the instance has one");
  host::addJoin(line);
  host::addSync(line);
  host::addRefresh(line);
  host::addUpload(line);
  host::addMonitor(line);
  host::addAlerts(line);
  host::addStatus(line);
  host::addExplain(line);
  host::addRollback(line);
  host::addRun(line);
}

}  // namespace

int main(int argc, char** argv) try {
  programs::beginProgram();
  programs::CommandLine line(
      "lqhost",
      "The host service of a client machine: joins a management server and synchronises its registry.",
      kFooter);
  Settings settings;
  describe(line, settings);
  if (const auto exitCode = line.parse(argc, argv)) return *exitCode;

  if (!settings.registry.empty()) lqregistry::UseFile(settings.registry);
  std::vector<std::string> places{lqregistry::File()};
  if (const int exitCode = line.prepare(places); exitCode != host::kExitOk) return exitCode;
  if (const CWmError error = programs::becomeServiceUser(places); error.IsError())
    return host::print(host::complaint(host::kExitNotJoined, error.AsString()));
  // Both, because the product lets the variable override the focus; and before any thread runs.
  setenv(lqsettings::kInstanceVariable, settings.instance.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  LQPI_Focus::setFocus(settings.instance.c_str());
  if (const CWmError error = host::setUpLog(settings.log, line.chosen() == host::kRunCommand);
      error.IsError()) {
    const bool isNamed = !settings.log.file.empty();
    const int exitCode =
        host::print(host::complaint(isNamed ? host::kExitUsage : host::kExitOk,
                                    std::string(error.AsString()) + "; --log-file names another place"));
    if (isNamed) return exitCode;
  }
  host::WireWatch::install();
  return line.run();
} catch (const std::exception& error) {  // out of memory, in all likelihood
  std::fprintf(stderr, "lqhost: %s\n", programs::escapedForTerminal(error.what()).c_str());
  return host::kExitFailed;
}
