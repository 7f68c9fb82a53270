// `overhub show`: what is set for machines, groups or all, or what a machine gets; secrets hidden.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/definitions.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/change.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/settings.h"

namespace {

constexpr const char* kFooter = R"(Examples:
  overhub show @all
  overhub show web-1                (what is set for this machine alone)
  overhub show web-1 --effective    (what it gets, and from where))";

// What the definitions say of a setting; nobody knows without them.
constexpr const char* kNeedsRestart = "needsRestart";
constexpr const char* kSentence = "sentence";

struct Show {
  std::string target;
  bool isEffective = false;
  std::string definitionFile;  // empty: that of the store's directory
  Definitions definitions;
  Listing list{"settings",
               {{"PATH", "path", Listing::Kind::text},
                {"NAME", "name", Listing::Kind::text},
                {"TYPE", "type", Listing::Kind::text},
                {"VALUE", "value", Listing::Kind::text},
                {"UNTIL", "until", Listing::Kind::end},
                {"FLAGS", "flags", Listing::Kind::text},
                {"SCOPE", "scope", Listing::Kind::text},
                {"REVISION", "revision", Listing::Kind::number},
                {"RESTART", kNeedsRestart, Listing::Kind::yesNo},
                {"MEANING", kSentence, Listing::Kind::text}}};
};

void addRow(Show& wanted, const Setting& setting, const std::string& flags, const ScopeNames& names) {
  // A removal and a sub-key have no value.
  const bool hasValue = !setting.isRemoval && !setting.identity.isKey;
  std::vector<Listing::Cell> row = {setting.path,
                                    setting.identity.name,
                                    setting.type,
                                    hasValue ? shownValue(setting) : "",
                                    setting.expires,
                                    flags,
                                    names.of(setting.scope),
                                    setting.validFrom};
  if (!wanted.definitions.isEmpty()) {
    row.emplace_back(wanted.definitions.needsRestart(setting.path, setting.identity.name));
    row.emplace_back(wanted.definitions.sentenceOf(setting.path, setting.identity.name));
  }
  wanted.list.addRow(std::move(row));
}

CWmError listScopes(soci::session& session, Show& wanted) {
  std::vector<std::string> scopes;
  CWmError error = scopesOfTarget(session, wanted.target, scopes);
  const ScopeNames names(session);
  const std::int64_t revision = newestRevision(session);
  for (const std::string& scope : scopes)
    for (const Setting& setting : settingsOf(session, scope, revision))
      addRow(wanted, setting, shownFlags(setting), names);
  return error;
}

CWmError listEffective(const Database& database, soci::session& session, Show& wanted) {
  std::vector<Client> clients;
  CWmError error = clientsOfTarget(session, wanted.target, clients);
  if (!error.IsError() && clients.size() != 1)
    error = {kLqErrArgument, "--effective is about one machine, and " + wanted.target + " means " +
                                 std::to_string(clients.size())};
  const Client client = error.IsError() ? Client() : clients.front();
  if (error.IsError()) return error;
  const ScopeNames names(session);
  MachineState state;
  error = machineState(session, client.id, client.name, database.now(session), state);
  for (const auto& [identity, effective] : state.settings)
    addRow(wanted, effective.setting, effective.isExpired ? "expired" : shownFlags(effective.setting), names);
  return error;
}

int show(const Store& store, Show& wanted) {
  CWmError error = loadDefinitions(wanted.definitionFile, store.directory(), wanted.definitions);
  if (error.IsError()) return complain(kExitDataUnusable, error.AsString());
  if (wanted.definitions.isEmpty())
    for (const char* const column : {kNeedsRestart, kSentence}) wanted.list.hideFromPeople(column);
  const Database& database = store.database();
  const Listing empty = wanted.list;
  error = database.read([&](soci::session& session) {
    wanted.list = empty;
    return wanted.isEffective ? listEffective(database, session, wanted) : listScopes(session, wanted);
  });
  if (error.IsError()) return storeFailed(error);
  print(wanted.list.output());
  return kExitOk;
}

}  // namespace

void addShow(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Show>();
  auto options =
      line.add("show", "Print what is set, or with --effective what a machine gets; secrets hidden",
               onStore(place, [wanted](const Store& store) { return show(store, *wanted); }));
  options.required("TARGET", wanted->target, std::string(kTargetForms) + "; @static for the static list")
      .flag("--effective", wanted->isEffective, "All that this one machine gets, with scope and revision");
  describeDefinitions(options, wanted->definitionFile);
  wanted->list.describe(options);
  options.footer(kFooter);
}
