// lqhost: the host service of a client machine. The command line is here; each command has a file of its own.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "host/exit_codes.h"
#include "host/join.h"
#include "host/sync.h"
#include "platform/LQPlatformInfo.h"
#include "platform/LqRegistryFile.h"
#include "programs/log_options.h"

namespace {

constexpr const char* kDefaultInstance = "Instance001";

constexpr const char* kLogFile = "lqhost.log";
constexpr const char* kStandardError = "-";

constexpr const char* kFooter = R"(
Examples:
  lqhost join client42.join --home /opt/velmor
  lqhost sync
  lqhost sync --watch Machine/Settings nTraceLevel
  lqhost --log-level 10 --log-file /tmp/lqhost.log sync

Exit codes: 0 done, 1 no batch was received, 2 wrong usage or join file, 3 not joined or the registry cannot be
used, 4 a batch was received but not all of it could be applied, 5 skipped (switched off, or not joined fully).)";

struct CommandLine {
  std::string registry;
  std::string instance = kDefaultInstance;
  programs::LogOptions log;
  std::string joinFile;
  host::JoinOptions join;
  host::SyncOptions sync;
};

void describe(CLI::App& app, CommandLine& line) {
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--registry", line.registry,
                 "The registry file; otherwise that of VELMOR_REGISTRY, otherwise " +
                     std::string(lqregistry::kDefaultFile));
  app.add_option("--instance", line.instance, "The installation instance")
      ->envname("VELMOR_VM")
      ->capture_default_str();
  app.add_option("--log-level", line.log.level, "Highest level that is logged")
      ->check(CLI::Range(0, programs::kMaxLogLevel))
      ->capture_default_str();
  app.add_option(
      "--log-file", line.log.file,
      "Log into this file, rotated; - is standard error. Otherwise lqhost.log in the log directory, once "
      "the instance has one");
}

CLI::App* describeJoin(CLI::App& app, CommandLine& line) {
  CLI::App* join =
      app.add_subcommand("join", "Join a management server: record what this client needs to know");
  join->add_option("FILE", line.joinFile, "The join file that `overhub add-client` wrote")->required();
  join->add_option("--home", line.join.home,
                   "Installation home; otherwise " + std::string(host::kDefaultHome));
  join->add_option("--base", line.join.base, "Base directory; otherwise the folder Base of the home");
  join->add_option("--machine", line.join.machine, "Physical machine name; otherwise the system's host name");
  join->add_option("--host", line.join.host, "Client host name; otherwise the machine name");
  return join;
}

CLI::App* describeSync(CLI::App& app, CommandLine& line) {
  CLI::App* sync = app.add_subcommand("sync", "Synchronise once now, and report what changed");
  sync->add_option(
          "--watch", line.sync.watched,
          "Register a change callback for a key path and a value name, spelled as the server spells them; "
          "may be repeated")
      ->type_name("PATH NAME");
  return sync;
}

// Sets the log up. Where the command line names no place, it is the instance's own log directory, or standard
// error while there is none that can be used. False when the place that was named cannot be used.
bool setUpLog(programs::LogOptions log) {
  const bool isPlaceGiven = !log.file.empty();
  if (log.file == kStandardError) log.file.clear();
  LQPI_EventManager eventManager(0, 1);
  if (const char* const directory = eventManager.getLogFilesDirectory();
      !isPlaceGiven && directory != nullptr)
    log.file = std::string(directory) + "/" + kLogFile;
  CWmError error = programs::configureLog(log);
  if (!error.IsError()) return true;
  std::fprintf(stderr, "lqhost: %s; --log-file names another place\n", error.AsString());
  log.file.clear();
  return !isPlaceGiven && !programs::configureLog(log).IsError();
}

int runJoin(const CommandLine& line) {
  host::JoinFile file;
  std::string error;
  if (!host::readJoinFile(line.joinFile, file, error)) {
    std::fprintf(stderr, "lqhost: %s\n", error.c_str());
    return host::kExitUsage;
  }
  if (!host::join(file, line.join, error)) {
    std::fprintf(stderr, "lqhost: %s\n", error.c_str());
    return host::kExitNotJoined;
  }
  std::printf("%s joined %s at %s as client %s, id %llu; the registry is %s\n", line.instance.c_str(),
              file.serverName.c_str(), file.serverHost.c_str(), file.clientName.c_str(),
              static_cast<unsigned long long>(file.clientId), lqregistry::File().c_str());
  return host::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "The host service of a client machine: joins a management server and synchronises its registry.",
      "lqhost");
  CommandLine line;
  describe(app, line);
  const CLI::App* const join = describeJoin(app, line);
  describeSync(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? host::kExitOk : host::kExitUsage;
  }

  if (!line.registry.empty()) lqregistry::UseFile(line.registry);
  LQPI_Focus::setFocus(line.instance.c_str());
  if (!setUpLog(line.log)) return host::kExitUsage;
  return join->parsed() ? runJoin(line) : host::sync(line.sync);
}
