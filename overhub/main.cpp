// overhub: the management server, and the commands that maintain its store. Each command
// has a file of its own.
#include <exception>

#include "common/program_start.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"

namespace {

constexpr const char* kDefaultDirectory = "/var/lib/overhub";

constexpr const char* kFooter =
    R"(Examples:
  overhub add-client web-1 --server-host mgmt.example
  overhub renew-client web-1 --server-host mgmt.example
  overhub client-host web-1 10.0.0.7
  overhub clients 'web-*'
  overhub set web-1 '~/Limits' nMAX 20
  overhub set web-1 '~' Local --type KEY
  overhub set web-1 '~/Proxy' sPASSWORD --secret < password.txt
  overhub add-group berlin --number 10
  overhub join-group berlin web-1 'db-*'
  overhub leave-group berlin 'db-*'
  overhub groups --json
  overhub remove-group berlin --dry-run
  overhub set @berlin '~/Trial' bON 1 --until +1d --why "ticket 4711" --dry-run
  overhub show web-1 --effective
  overhub serve --log-file /var/log/overhub.log
  overhub --store postgresql://hub@db1,db2/overhub serve
  overhub status
  overhub report /root/fleet.html
  overhub why web-1
  overhub log web-1
  overhub diff 16 17
  overhub undo 17 --dry-run
  overhub export /root/settings
  overhub apply /root/settings --dry-run
  overhub acks web-1
  overhub uploads web-1
  overhub resend web-1
  overhub set @berlin '~/Limits' nMAX 30 --confirm 5m
  overhub confirm web-1
  overhub push web-1
  overhub fetch web-1 '~/Limits' nMAX nMIN
  overhub call web-1 7 'hello'
  overhub backup /backup/overhub.db
  overhub import /var/lib/overhub.former

Exit codes: 0 done, 1 not found or refused (by the client, for push, fetch and call), 2 wrong usage, 3 the store, a
file that was named, or standard output cannot be used, 4 the client could not be reached, or did not answer, 6 a
machine is not as it should be (status, why), or has not given everything back yet (remove-client --withdraw).)";

void describe(programs::CommandLine& line, Store::Place& place) {
  describeStore(line.options(), place);
  addServe(line, place);
  addAddClient(line, place);
  addRenewClient(line, place);
  addRemoveClient(line, place);
  addClientHost(line, place);
  addClients(line, place);
  addGroups(line, place);
  addAddGroup(line, place);
  addRemoveGroup(line, place);
  addJoinGroup(line, place);
  addLeaveGroup(line, place);
  addSet(line, place);
  addUnset(line, place);
  addShow(line, place);
  addStatus(line, place);
  addWhy(line, place);
  addReport(line, place);
  addLog(line, place);
  addDiff(line, place);
  addUndo(line, place);
  addExport(line, place);
  addApply(line, place);
  addAcks(line, place);
  addUploads(line, place);
  addResend(line, place);
  addConfirm(line, place);
  addPush(line, place);
  addFetch(line, place);
  addCall(line, place);
  addBackup(line, place);
  addImport(line, place);
}

}  // namespace

int main(int argc, char** argv) try {
  programs::beginProgram();
  Store::Place place{.directory = kDefaultDirectory, .uri = ""};
  programs::CommandLine line(
      "overhub", "The management server: hands clients their settings and records what became of them.",
      kFooter);
  describe(line, place);
  if (const auto exitCode = line.parse(argc, argv)) return exitCodeOncePrinted(*exitCode);
  return exitCodeOncePrinted(line.run());
} catch (const std::exception& error) {  // out of memory, in all likelihood
  return complain(kExitRefused, error.what());
}
