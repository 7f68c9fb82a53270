// overhub: the embedded management server, and the commands that maintain its data directory. Each command
// has a file of its own.
#include <exception>

#include "common/program_start.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"

namespace {

constexpr const char* kDataVariable = "OVERHUB_DATA";
constexpr const char* kDefaultData = "/var/lib/overhub";

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

void describe(programs::CommandLine& line, std::string& data) {
  line.options().option("--data DIR", data, "The data directory").fromEnvironment(kDataVariable);
  addServe(line, data);
  addAddClient(line, data);
  addRenewClient(line, data);
  addSet(line, data);
  addUnset(line, data);
  addShow(line, data);
  addClients(line, data);
  addAcks(line, data);
  addUploads(line, data);
  addClientHost(line, data);
  addPush(line, data);
  addFetch(line, data);
  addCall(line, data);
}

}  // namespace

int main(int argc, char** argv) try {
  programs::beginProgram();
  std::string data = kDefaultData;
  programs::CommandLine line(
      "overhub", "The management server: hands clients their settings and records what became of them.",
      kFooter);
  describe(line, data);
  if (const auto exitCode = line.parse(argc, argv)) return *exitCode;
  return line.run();
} catch (const std::exception& error) {  // out of memory, in all likelihood
  return complain(kExitRefused, error.what());
}
