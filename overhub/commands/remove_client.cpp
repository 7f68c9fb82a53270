// `overhub remove-client`: takes clients away, with their keys and what was set for them; with --withdraw
// only once their machines have given back what the server had set there.
#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <set>
#include <thread>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/change.h"
#include "overhub/store/hand_out.h"

namespace {

constexpr const char* kFooter =
    R"(A client that was removed is let in no more; its id is never given again. Its machine keeps the settings that it
has. With --withdraw it gets removals of all of them first, at its next passes, and is removed by the next
"remove-client --withdraw" after two passes in a row were applied; exit code 6 says that some still wait. Until then
"overhub undo" takes it back.

Examples:
  overhub remove-client web-1
  overhub remove-client @berlin --withdraw --wait 3600
  overhub remove-client --withdraw        (those that were withdrawn before and are ready))";

constexpr std::chrono::seconds kLookEvery{2};

struct RemoveClient {
  std::string target;
  bool isWithdrawing = false;
  int waitSeconds = 0;
  ChangeOptions change;
};

std::string commandText(const RemoveClient& wanted) {
  return "remove-client" + (wanted.target.empty() ? "" : " " + wanted.target) +
         (wanted.isWithdrawing ? " --withdraw" : "");
}

// Removes them, with their names in groups, or a new client of the same name would be in those.
void remove(soci::session& session, const std::vector<Client>& clients, ChangeSet& changes) {
  std::set<std::string> names;
  for (const Client& client : clients) {
    changes.removedClients.push_back(client.id);
    names.insert(client.name);
  }
  for (const Member& member : membersAt(session, newestRevision(session)))
    if (names.contains(member.pattern)) changes.members.push_back({member, false});
}

int removeNow(const Store& store, const RemoveClient& wanted) {
  if (wanted.target.empty())
    return complain(kExitUsage, "which clients are to be removed? TARGET is missing");
  return wanted.change.make(store, commandText(wanted), [&](soci::session& session, ChangeSet& changes) {
    std::vector<Client> clients;
    CWmError error = clientsOfTarget(session, wanted.target, clients);
    remove(session, clients, changes);
    return error;
  });
}

// How far machines have come that are to give everything back.
struct Progress {
  std::vector<Client> clean;  // hold nothing of this server any more
  std::vector<Client> fresh;  // have to begin
  Listing waiting{"waiting",
                  {{"CLIENT", "client", Listing::Kind::text},
                   {"LAST SEEN", "lastSeen", Listing::Kind::age},
                   {"WAITS FOR", "waitsFor", Listing::Kind::text}}};
};

// Who is meant, also when this goes on after the first of them are gone.
CWmError findClients(soci::session& session, const RemoveClient& wanted, std::vector<Client>& clients) {
  if (!wanted.target.empty()) return clientsOfTarget(session, wanted.target, clients);
  clients.clear();
  const auto withdrawn = withdrawalsAt(session, newestRevision(session));
  for (const Client& client : allClients(session))
    if (withdrawn.contains(client.id)) clients.push_back(client);
  return {};
}

std::string waitsFor(const Contact& contact, bool isBegun, std::int64_t since) {
  if (!isBegun || contact.proven == 0 || contact.provenRevision < since) return "two applied passes";
  return "one more applied pass";
}

CWmError look(const Database& database, soci::session& session, const std::vector<Client>& clients,
              Progress& progress) {
  progress = Progress();
  const auto withdrawn = withdrawalsAt(session, newestRevision(session));
  const std::int64_t now = database.now(session);
  progress.waiting.asOf(now);
  std::set<std::int64_t> there;
  for (const Client& client : allClients(session)) there.insert(client.id);
  for (const Client& client : clients) {
    if (!there.contains(client.id)) continue;
    MachineState state;
    CWmError error = machineState(session, client.id, client.name, now, state);
    if (error.IsError()) return error;
    const Contact contact = contactOf(session, client.id);
    const auto since = withdrawn.find(client.id);
    if (state.held.empty() && (contact.handed == 0 || !contact.isCacheUnknown)) {
      progress.clean.push_back(client);
      continue;
    }
    if (since == withdrawn.end()) progress.fresh.push_back(client);
    progress.waiting.addRow(
        {client.name, contact.lastSeen,
         waitsFor(contact, since != withdrawn.end(), since != withdrawn.end() ? since->second : 0)});
  }
  return {};
}

// Goes one step with all of them: whoever holds nothing is removed, whoever has not begun begins. An exit
// code.
int step(const Store& store, const RemoveClient& wanted, const std::vector<Client>& clients,
         Progress& progress) {
  const Database& database = store.database();
  const CWmError error =
      database.read([&](soci::session& session) { return look(database, session, clients, progress); });
  if (error.IsError()) return storeFailed(error);
  if (progress.clean.empty() && progress.fresh.empty()) return kExitOk;
  return wanted.change.make(store, commandText(wanted), [&](soci::session& session, ChangeSet& changes) {
    CWmError fault = look(database, session, clients, progress);
    remove(session, progress.clean, changes);
    for (const Client& client : progress.fresh) changes.withdrawals.push_back({client.id, true});
    return fault;
  });
}

int withdraw(const Store& store, const RemoveClient& wanted) {
  std::vector<Client> clients;
  const CWmError error =
      store.database().read([&](soci::session& session) { return findClients(session, wanted, clients); });
  if (error.IsError()) return storeFailed(error);
  if (clients.empty()) print("no client is being withdrawn\n");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wanted.waitSeconds);
  for (std::string told;;) {
    Progress progress;
    const int exitCode = step(store, wanted, clients, progress);
    if (exitCode != kExitOk || wanted.change.isDryRun() || progress.waiting.rowCount() == 0) return exitCode;
    if (const std::string text = progress.waiting.output(); text != told) print(told = text);
    if (std::chrono::steady_clock::now() >= end) return kExitNotCurrent;
    std::this_thread::sleep_until(std::min(end, std::chrono::steady_clock::now() + kLookEvery));
  }
}

}  // namespace

void addRemoveClient(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<RemoveClient>();
  auto options =
      line.add("remove-client", "Take clients away, with their keys and settings",
               onStore(place, [wanted](const Store& store) {
                 return wanted->isWithdrawing ? withdraw(store, *wanted) : removeNow(store, *wanted);
               }));
  options.option("TARGET", wanted->target, std::string(kTargetForms) + "; with --withdraw may be missing")
      .flag("--withdraw", wanted->isWithdrawing, "First withdraw everything from their machines")
      .bounded("--wait SECONDS", wanted->waitSeconds, 1, std::numeric_limits<int>::max(),
               "Wait so long until the machines have given everything back")
      .needs("--withdraw");
  wanted->change.describe(options);
  options.footer(kFooter);
}
