// `overhub resend`: hands clients again all removals of what they were ever handed.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"

namespace {

constexpr const char* kFooter =
    R"(For a machine that was set back to an older state, such as a snapshot: it may hold again what the server has
withdrawn since. What was handed out in the last ninety days goes, until two passes in a row were applied; for
older states "lqhost sync --fresh" on the machine drops its cache first.)";

int resend(const Store& store, const std::string& target) {
  std::vector<Client> clients;
  const CWmError error = store.database().writeOnce([&](soci::session& session) {
    CWmError fault = clientsOfTarget(session, target, clients);
    for (const Client& client : clients) doubtCache(session, client.id);
    return fault;
  });
  if (error.IsError()) return storeFailed(error);
  print(std::to_string(clients.size()) + (clients.size() == 1 ? " machine" : " machines") +
        " will get all removals again at the next pass\n");
  return kExitOk;
}

}  // namespace

void addResend(programs::CommandLine& line, const Store::Place& place) {
  const auto target = std::make_shared<std::string>();
  line.add("resend", "Hand clients all removals again",
           onStore(place, [target](const Store& store) { return resend(store, *target); }))
      .required("TARGET", *target, kTargetForms)
      .footer(kFooter);
}
