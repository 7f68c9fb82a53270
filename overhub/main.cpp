// overhub: the embedded management server, and the commands that maintain its data directory.
//
// The command line is here and in command_line.h; what each command does is in commands.h, serve_command.h,
// upload_commands.h and client_requests.h.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <limits>

#include "common/program_start.h"
#include "overhub/commands/command_line.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"

namespace {

constexpr const char* kDataVariable = "OVERHUB_DATA";
constexpr const char* kDefaultServerName = "overhub";

constexpr const char* kFooter =
    R"(The data directory is plain files; clients/NAME.xml may be edited by hand and counts from the next request.

Examples:
  overhub add-client web-1 --server-host mgmt.example
  overhub set web-1 '~/Limits' nMAX 20
  overhub set web-1 '~' Local --type KEY
  overhub set web-1 '~/Proxy' sPASSWORD --secret < password.txt
  overhub set web-1 '~/Trial' bON 1 --until +86400
  overhub show web-1
  overhub serve --log-file /var/log/overhub.log
  overhub acks web-1
  overhub uploads web-1
  overhub push web-1
  overhub fetch web-1 '~/Limits' nMAX nMIN
  overhub call web-1 7 'hello'

Exit codes: 0 done, 1 not found or refused (by the client, for push, fetch and call), 2 wrong usage, 3 the data
directory cannot be used, 4 the client could not be reached, or did not answer.)";

constexpr const char* kSetFooter =
    R"(Paths: "SOFTWARE/..." is absolute, anything else is below the root of the client's instance, which is "~".
Quote "~", or the shell puts your home directory in its place.
The client applies the record at its next synchronisation.

Examples:
  overhub set web-1 '~/Limits' nMAX 20
  overhub set web-1 '~/Limits' nMAX --delete            (the client removes the value)
  overhub set web-1 '~/Proxy' sPASSWORD --secret < password.txt
  overhub set @static '~/Limits' nMAX 20                (what clients get that ask for the static list))";

constexpr const char* kServeFooter = R"(Example:
  overhub serve --listen 10.0.0.5 --listen ::1 --log-level 2
SIGTERM or SIGINT stops the server; running sessions get a few seconds to finish.)";

void describeServe(CLI::App& app, CommandLine& line) {
  auto* serving = addCommand(app, line, "serve", "Answer the clients until asked to stop",
                             [&line](const DataStore& store) { return serve(store, line.serve); });
  serving
      ->add_option("--listen", line.serve.addresses,
                   std::string("Address to listen on, may be repeated; otherwise ") + kAnyAddress)
      ->type_name("ADDRESS")
      ->expected(1)
      ->take_all();
  serving->add_option("--ports", line.serve.ports, "The two service ports")
      ->delimiter(',')
      ->expected(2)
      ->check(CLI::Range(1, static_cast<int>(std::numeric_limits<std::uint16_t>::max())))
      ->type_name("FIRST,SECOND")
      ->default_str(std::to_string(kFirstServicePort) + "," + std::to_string(kSecondServicePort));
  serving->add_option("--log-level", line.serve.log.level, "How much is logged")
      ->check(CLI::Range(0, programs::kMaxLogLevel))
      ->capture_default_str();
  serving->add_option("--log-file", line.serve.log.file, "Log to this file; otherwise to standard error")
      ->type_name("FILE");
  serving->footer(kServeFooter);
}

void describeJoinFile(CLI::App& command, NewClient& wanted) {
  command
      .add_option("--server-host", wanted.serverHost,
                  "Under which name or address the client reaches this server; otherwise its host name")
      ->type_name("HOST");
  command.add_option("--server-name", wanted.serverName, "The server's own client name")
      ->type_name("NAME")
      ->capture_default_str();
  command
      .add_option("--join-file", wanted.joinFile,
                  "Where to write the join file; otherwise DIR/join/NAME.join")
      ->type_name("FILE");
}

void describeAddClient(CLI::App& app, CommandLine& line) {
  NewClient& wanted = line.newClient;
  wanted.serverName = kDefaultServerName;
  auto* add = addCommand(app, line, "add-client", "Register a client and write its join file",
                         [&wanted](const DataStore& store) { return addClient(store, wanted); });
  add->add_option("NAME", wanted.name, "The client's name: letters, digits, . _ -")->required();
  add->add_option("--id", wanted.id, "Its id; otherwise the highest handed out plus 1")
      ->check(checkNumber(1))
      ->type_name("N");
  describeJoinFile(*add, wanted);

  auto* renew =
      addCommand(app, line, "renew-client", "Give a client a new session key and join file",
                 onExisting([&wanted](const DataStore& store) { return renewClient(store, wanted); }));
  renew->add_option("NAME", wanted.name, "The client's name; its id and its batch stay")->required();
  describeJoinFile(*renew, wanted);
}

int runSet(const DataStore& store, const SetOptions& options) {
  RecordChange change;
  const std::string reason = changeFromOptions(options, change);
  if (!reason.empty()) return complain(kExitUsage, reason + "; see \"overhub set --help\"");
  return changeRecord(store, options.client, change);
}

void describeSet(CLI::App& app, CommandLine& line) {
  SetOptions& options = line.set;
  auto* set = addCommand(app, line, "set", "Add or replace a record of a client's batch",
                         onExisting([&options](const DataStore& store) { return runSet(store, options); }));
  set->add_option("CLIENT", options.client, "The client's name, or @static for the static list")->required();
  set->add_option("PATH", options.path, "The key's path")->required();
  set->add_option("NAME", options.name, "The value's name; with --type KEY, the sub-key's")->required();
  set->add_option("VALUE", options.value, "The value");
  set->add_option("--type", options.type, "Type word, such as STRING or KEY")
      ->type_name("WORD")
      ->capture_default_str();
  set->add_flag("--secret", options.isSecret, "Take the value from standard input and keep it encrypted")
      ->excludes("--type");
  set->add_flag("--delete", options.isRemoval, "The client is to remove the value")->excludes("--secret");
  set->add_flag("--disabled", options.isDisabled, "Not wanted on the client for now, which removes it too");
  set->add_option("--until", options.until,
                  "When the value ends: seconds since the epoch, or +SECONDS from now. Kept as the record "
                  "NAME_UNTIL, which counts for every NAME of the batch, whatever its path")
      ->type_name("TIME");
  set->footer(kSetFooter);
}

void describeBatchCommands(CLI::App& app, CommandLine& line) {
  auto* unset = addCommand(app, line, "unset",
                           "Take a record out of a client's batch. The client keeps its value; to remove it "
                           "there use \"set --delete\"",
                           onExisting([&line](const DataStore& store) {
                             return removeRecord(store, line.client, line.path, line.name);
                           }));
  unset->add_option("CLIENT", line.client, "The client's name, or @static")->required();
  unset->add_option("PATH", line.path, "The key's path, as \"show\" prints it")->required();
  unset->add_option("NAME", line.name, "The value's name")->required();

  auto* show =
      addCommand(app, line, "show", "Print a client's batch, secrets hidden",
                 onExisting([&line](const DataStore& store) { return showBatch(store, line.client); }));
  show->add_option("CLIENT", line.client, "The client's name, or @static")->required();
}

void describeLists(CLI::App& app, CommandLine& line) {
  addCommand(app, line, "clients", "List the clients", onExisting(listClients));
  auto* acks = addCommand(
      app, line, "acks", "List what clients have acknowledged, newest last",
      onExisting([&line](const DataStore& store) { return listAcknowledgements(store, line.client); }));
  acks->add_option("CLIENT", line.client, "One client only");
}

}  // namespace

int main(int argc, char** argv) try {
  programs::beginProgram();
  CLI::App app("The management server: hands clients their settings and records what became of them.");
  CommandLine line;
  app.footer(kFooter);
  app.require_subcommand(1);
  app.add_option("--data", line.data, "The data directory")
      ->envname(kDataVariable)
      ->type_name("DIR")
      ->capture_default_str();
  describeServe(app, line);
  describeAddClient(app, line);
  describeSet(app, line);
  describeBatchCommands(app, line);
  describeLists(app, line);
  describeUploads(app, line);
  describeRequests(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitOk : kExitUsage;
  }
  return line.command(DataStore(line.data));
} catch (const std::exception& failure) {  // out of memory, in all likelihood
  std::fprintf(stderr, "overhub: %s\n", failure.what());
  return kExitRefused;
}
