// lqhost: the host service of a client machine. The command line is here; each command has a file of its own.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "common/log_options.h"
#include "common/program_start.h"
#include "lqhost/commands/join.h"
#include "lqhost/commands/monitor.h"
#include "lqhost/commands/refresh.h"
#include "lqhost/commands/run.h"
#include "lqhost/commands/status.h"
#include "lqhost/commands/sync.h"
#include "lqhost/commands/upload.h"
#include "lqhost/exit_codes.h"
#include "lqhost/pass/wire_watch.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"

namespace {

constexpr const char* kDefaultInstance = "Instance001";

constexpr const char* kInstanceVariable = "VELMOR_VM";
// The resident host has a log of its own: two processes that rotate one file lose lines.
constexpr const char* kResidentLogFile = "lqhost.log";
constexpr const char* kCommandLogFile = "lqhost-command.log";
constexpr const char* kStandardError = "-";

constexpr const char* kFooter = R"(
Examples:
  lqhost join client42.join --home /opt/velmor
  lqhost sync
  lqhost sync --watch Machine/Settings nTraceLevel
  lqhost --log-level 10 --log-file - refresh
  lqhost run --sync-every 3600
  lqhost status

Exit codes: 0 done, 1 failed (no batch was received, nothing was uploaded, the host could not start, a task runs
in another process already), 2 wrong usage
or join file, 3 not joined or the registry cannot be used, 4 not everything could be applied, 5 skipped
(synchronisation is switched off, or joining not finished), 6 values differ from the cache.)";

struct CommandLine {
  std::string registry;
  std::string instance = kDefaultInstance;
  programs::LogOptions log;
  std::string joinFile;
  host::JoinOptions join;
  host::SyncOptions sync;
  host::RunOptions run;
};

void describe(CLI::App& app, CommandLine& line) {
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--registry", line.registry,
                 "The registry file; otherwise that of VELMOR_REGISTRY, otherwise " +
                     std::string(lqregistry::kDefaultFile));
  app.add_option("--instance", line.instance, "The installation instance")
      ->envname(kInstanceVariable)
      ->capture_default_str();
  app.add_option("--log-level", line.log.level, "Highest level that is logged")
      ->check(CLI::Range(0, programs::kMaxLogLevel))
      ->capture_default_str();
  app.add_option(
      "--log-file", line.log.file,
      "Log into this file, rotated; - is standard error. Otherwise lqhost.log (of run) or lqhost-command.log "
      "in the log directory, once the instance has one");
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
bool setUpLog(programs::LogOptions log, const char* defaultName) {
  const bool isPlaceGiven = !log.file.empty();
  if (log.file == kStandardError) log.file.clear();
  LQPI_EventManager eventManager(0, 1);
  if (const char* const directory = eventManager.getLogFilesDirectory();
      !isPlaceGiven && directory != nullptr)
    log.file = std::string(directory) + "/" + defaultName;
  CWmError error = programs::configureLog(log);
  if (!error.IsError()) return true;
  std::fprintf(stderr, "lqhost: %s; --log-file names another place\n", error.AsString());
  log.file.clear();
  return !isPlaceGiven && !programs::configureLog(log).IsError();
}

CLI::App* describeRun(CLI::App& app, CommandLine& line) {
  CLI::App* run = app.add_subcommand("run", "Stay: run the periodic tasks and serve the server's requests");
  run->add_option("--listen", line.run.address, "Address to serve the server's requests on")
      ->capture_default_str();
  run->add_option("--port", line.run.port, "Port to serve them on")->capture_default_str();
  run->add_option("--sync-every", line.run.syncEvery, "Seconds between two synchronisations")
      ->check(CLI::Range(host::kMinFrequency, host::kMaxFrequency))
      ->capture_default_str();
  run->add_option("--spread", line.run.spread, "Spread first runs over this many seconds")
      ->check(CLI::Range(0U, host::kMaxFrequency))
      ->capture_default_str();
  run->add_option("--module", line.run.modules, "Load this host module; may be repeated");
  return run;
}

// The join file is read as whoever started this, who may be the only one that it is for.
bool readJoinFile(const CommandLine& line, host::JoinFile& file) {
  std::string error;
  if (host::readJoinFile(line.joinFile, file, error)) return true;
  std::fprintf(stderr, "lqhost: %s\n", error.c_str());
  return false;
}

int runJoin(const CommandLine& line, const host::JoinFile& file) {
  std::string error;
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

int main(int argc, char** argv) try {
  programs::beginProgram();
  CLI::App app(
      "The host service of a client machine: joins a management server and synchronises its registry.",
      "lqhost");
  CommandLine line;
  describe(app, line);
  std::function<int()> command;
  host::JoinFile joinFile;
  CLI::App* const join = describeJoin(app, line);
  join->callback([&] { command = [&] { return runJoin(line, joinFile); }; });
  describeSync(app, line)->callback([&] { command = [&line] { return host::sync(line.sync); }; });
  app.add_subcommand("refresh", "Reapply the cached settings once now, and report what changed")
      ->callback([&] { command = &host::refresh; });
  app.add_subcommand("upload", "Send the whole registry of the instance to the server")->callback([&] {
    command = &host::upload;
  });
  app.add_subcommand("monitor", "Run the log-space check once now")->callback([&] {
    command = &host::monitor;
  });
  app.add_subcommand("alerts", "Run the log-monitoring alert rules once now")->callback([&] {
    command = &host::alerts;
  });
  app.add_subcommand("status", "Show what this client is joined to, its last and next passes, and drift")
      ->callback([&] { command = &host::status; });
  bool isResident = false;
  describeRun(app, line)->callback([&] {
    isResident = true;
    command = [&line] { return host::run(line.run); };
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? host::kExitOk : host::kExitUsage;
  }

  if (join->parsed() && !readJoinFile(line, joinFile)) return host::kExitUsage;
  if (!line.registry.empty()) lqregistry::UseFile(line.registry);
  std::vector<std::string> places{lqregistry::File()};
  if (join->parsed()) places.push_back(host::baseDirectoryFor(line.join));
  if (const CWmError error = programs::becomeServiceUser(places); error.IsError()) {
    std::fprintf(stderr, "lqhost: %s\n", error.AsString());
    return host::kExitNotJoined;
  }
  // Both, because the product lets the variable override the focus; and before any thread runs.
  setenv(kInstanceVariable, line.instance.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  LQPI_Focus::setFocus(line.instance.c_str());
  if (!setUpLog(line.log, isResident ? kResidentLogFile : kCommandLogFile)) return host::kExitUsage;
  host::WireWatch::install();
  return command();
} catch (const std::exception& failure) {  // out of memory, in all likelihood
  std::fprintf(stderr, "lqhost: %s\n", failure.what());
  return host::kExitFailed;
}
