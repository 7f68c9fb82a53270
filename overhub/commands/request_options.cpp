// The command line of the commands on uploads and of those that ask something of a client.
#include <limits>

#include "overhub/commands/client_requests.h"
#include "overhub/commands/command_line.h"
#include "overhub/commands/upload_commands.h"

namespace {

constexpr int kMaxTimeoutSeconds = 86400;

constexpr const char* kUploadsFooter = R"(Examples:
  overhub uploads
  overhub uploads web-1
  overhub uploads web-1 --out web-1.xml    (for "lqreg import" on a machine)
Protected values are hidden in the table.)";

constexpr const char* kHostFooter =
    R"(Without it a client is called at the address that it last attached from. Remove hosts/CLIENT in the data
directory to go back to that.)";

constexpr const char* kPushFooter = R"(Prints "applied" or "failed", which "acks" lists too.

Examples:
  overhub push web-1
  overhub push web-1 web-1.xml             (a file that "uploads web-1 --out" has written, or one like it))";

constexpr const char* kFetchFooter =
    R"(Prints "not found" for a value that could not be had, and exits with 1 then.

Example:
  overhub fetch web-1 '~/Limits' nMAX nMIN
Quote "~", or the shell puts your home directory in its place.)";

constexpr const char* kCallFooter =
    R"(Prints what the handler answers, as it is; a payload that starts with "-" goes after "--".

Examples:
  overhub call web-1 7 hello
  overhub call web-1 7 - < request.json)";

std::function<int(const DataStore&)> uploadsCommand(const CommandLine& line) {
  return onExisting([&line](const DataStore& store) {
    if (line.client.empty()) return listUploads(store);
    return line.file.empty() ? showUpload(store, line.client) : exportUpload(store, line.client, line.file);
  });
}

// What every request to a client takes.
void describeLink(CLI::App& command, CommandLine& line) {
  command.add_option("CLIENT", line.client, "The client's name")->required();
  command.add_option("--host", line.link.host, "Where the client is; otherwise what is recorded of it")
      ->type_name("HOST");
  command.add_option("--port", line.link.port, "The port of its host service")
      ->check(CLI::Range(1, static_cast<int>(std::numeric_limits<std::uint16_t>::max())))
      ->type_name("PORT")
      ->capture_default_str();
  command
      .add_option("--timeout", line.link.timeoutSeconds,
                  "How long to try to get through, and then to wait for the answer")
      ->check(CLI::Range(1, kMaxTimeoutSeconds))
      ->type_name("SECONDS")
      ->capture_default_str();
}

void describeClientHost(CLI::App& app, CommandLine& line) {
  auto* host = addCommand(
      app, line, "client-host", "Record where a client is called for push, fetch and call",
      onExisting([&line](const DataStore& store) { return setClientHost(store, line.client, line.name); }));
  host->add_option("CLIENT", line.client, "The client's name")->required();
  host->add_option("HOST", line.name, "Its host name or address")->required();
  host->footer(kHostFooter);
}

void describePush(CLI::App& app, CommandLine& line) {
  auto* push = addCommand(app, line, "push", "Have a client apply its batch now",
                          onExisting([&line](const DataStore& store) {
                            return pushBatch(store, line.client, line.file, line.link);
                          }));
  describeLink(*push, line);
  push->add_option("FILE", line.file, "Another batch than the client's own, which stays as it is");
  push->footer(kPushFooter);
}

void describeFetch(CLI::App& app, CommandLine& line) {
  auto* fetch = addCommand(app, line, "fetch", "Print values of a client's registry",
                           onExisting([&line](const DataStore& store) {
                             return fetchValues(store, line.client, line.path, line.names, line.link);
                           }));
  describeLink(*fetch, line);
  fetch->add_option("PATH", line.path, "The key's path below the instance's root, with or without \"~\"")
      ->required();
  fetch->add_option("NAME", line.names, "The values' names")->required();
  fetch->footer(kFetchFooter);
}

void describeCall(CLI::App& app, CommandLine& line) {
  auto* call = addCommand(app, line, "call", "Send an application message to a client",
                          onExisting([&line](const DataStore& store) {
                            return callClient(store, line.client, line.messageType, line.payload, line.link);
                          }));
  describeLink(*call, line);
  call->add_option("TYPE", line.messageType, "The message type that the client has a handler for")
      ->check(checkNumber(std::numeric_limits<std::int64_t>::min()))
      ->type_name("N")
      ->required();
  call->add_option("PAYLOAD", line.payload, "What the handler gets; \"-\" takes it from standard input")
      ->required();
  call->footer(kCallFooter);
}

}  // namespace

void describeUploads(CLI::App& app, CommandLine& line) {
  auto* uploads = addCommand(app, line, "uploads", "List what clients have uploaded of their registries",
                             uploadsCommand(line));
  auto* client = uploads->add_option("CLIENT", line.client, "Show what this one has uploaded");
  uploads->add_option("--out", line.file, "Write it to this file instead, which must not be there yet")
      ->type_name("FILE")
      ->needs(client);
  uploads->footer(kUploadsFooter);
}

void describeRequests(CLI::App& app, CommandLine& line) {
  describeClientHost(app, line);
  describePush(app, line);
  describeFetch(app, line);
  describeCall(app, line);
}
