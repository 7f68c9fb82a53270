// `overhub confirm`: says of machines that what they hold is good, or that they may try again what they went
// back from.
#include <memory>

#include "common/terminal_text.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/confirmations.h"
#include "overhub/store/handed_batches.h"
#include "overhub/store/reports.h"

namespace {

constexpr const char* kFooter =
    R"(For changes that were made with --confirm. A machine whose report shows that they are in effect is confirmed without
this. Of a machine that went back it says that it may apply the same once more. The machine hears of it with its
next report.

Exit code 0: done; 1: a machine has not been handed anything yet.)";

struct Done {
  std::vector<std::string> confirmed;
  std::vector<std::string> released;
  std::vector<std::string> left;  // never had a batch
};

void confirmOne(soci::session& session, const Client& client, Done& done) {
  const auto stored = reportOf(session, client.id);
  if (stored && stored->report.memory->state.get() == "goneBack") {
    release(session, client.id, stored->report.memory->since);
    done.released.push_back(client.name);
    return;
  }
  auto batch = stored ? findHandedBatch(session, client.id, stored->note.digest) : std::nullopt;
  if (!batch) batch = newestHandedBatch(session, client.id);
  if (!batch) {
    done.left.push_back(client.name);
    return;
  }
  confirm(session, client.id, batch->revision);
  done.confirmed.push_back(client.name);
}

std::string machines(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " machine" : " machines");
}

int confirmTarget(const Store& store, const std::string& target) {
  Done done;
  const CWmError error = store.database().writeOnce([&](soci::session& session) {
    done = Done();
    std::vector<Client> clients;
    CWmError fault = clientsOfTarget(session, target, clients);
    for (const Client& client : clients) confirmOne(session, client, done);
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  if (!done.confirmed.empty()) print(machines(done.confirmed.size()) + " confirmed\n");
  if (!done.released.empty())
    print(machines(done.released.size()) + " may apply again what they went back from\n");
  if (done.left.empty()) return kExitOk;
  return complain(kExitRefused, machines(done.left.size()) +
                                    " have not been handed anything yet; first of them " +
                                    programs::escapedForTerminal(done.left.front()));
}

}  // namespace

void addConfirm(programs::CommandLine& line, const Store::Place& place) {
  const auto target = std::make_shared<std::string>();
  line.add("confirm", "Say that what machines hold is good",
           onStore(place, [target](const Store& store) { return confirmTarget(store, *target); }))
      .required("TARGET", *target, kTargetForms)
      .footer(kFooter);
}
