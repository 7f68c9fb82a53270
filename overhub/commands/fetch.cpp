// `overhub fetch`: values of one key of clients' registries.
#include <memory>

#include "common/text_table.h"
#include "lqregistry/App.h"
#include "lqregistry/LqSettings.h"
#include "overhub/commands/client_requests.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFooter =
    R"(Says which values could not be had, and exits with 1 then.

Example:
  overhub fetch web-1 '~/Limits' nMAX nMIN
  overhub fetch @berlin '~/Limits' nMAX
Quote "~", or the shell puts your home directory in its place.)";

// A client cannot tell the server which of the two it is.
constexpr const char* kNotFetched = "not there, or 1,024 bytes or more";

// A fetch of one value. A client has room for a value only as far as the shorter ones before it in the same
// fetch left some, so each is asked for on its own.
App::FetchClientRegistry fetchOf(const std::string& path, const std::string& name) {
  App::FetchClientRegistry request;
  App::RegistryKeyInfo& key = request.keyInfo.edit().keys.edit().emplace_back();
  // The client puts the mark of its root in front.
  key.keyPath = path.substr(path.starts_with(lqsettings::kInstanceRoot) ? 1 : 0);
  key.valueName = name;
  key.valueType = std::string(STRINGTYPE);
  return request;
}

struct Fetch {
  ClientRequests requests;
  std::string path;
  std::vector<std::string> names;
};

RequestOutcome fetchFrom(ClientLink& link, const Fetch& wanted) {
  programs::TextTable table({"NAME", "VALUE"});
  bool isWhole = true;
  for (const std::string& name : wanted.names) {
    App::FetchClientRegistry answer;
    RequestOutcome outcome = link.ask(fetchOf(wanted.path, name), answer);
    if (outcome.exitCode != kExitOk) return outcome;
    const App::KeyList& found = answer.keyInfo->keys;
    const bool isFound = !found.empty() && found[0].value.isSet();
    isWhole = isWhole && isFound;
    table.addRow({name, isFound ? found[0].value.get() : kNotFetched});
  }
  RequestOutcome outcome;
  if (!isWhole) {
    outcome =
        failedRequest(kExitRefused,
                      "a fetch has no room for longer values; `lqhost upload` on the client brings those "
                      "of up to 10,239 bytes");
  }
  outcome.output = table.text();
  return outcome;
}

int fetch(const Store& store, const Fetch& wanted) {
  if (wanted.path.starts_with(subKeyPath(lqsettings::kAbsoluteRoot, "")))
    return complain(kExitUsage, "a client hands out only what is below the root of its instance, and \"" +
                                    wanted.path + "\" is not");
  App::RegisterSubsystem();
  return wanted.requests.run(store, [&wanted](ClientLink& link) { return fetchFrom(link, wanted); });
}

}  // namespace

void addFetch(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Fetch>();
  auto options = line.add("fetch", "Print values of clients' registries",
                          onStore(place, [wanted](const Store& store) { return fetch(store, *wanted); }));
  wanted->requests.describe(options);
  options.required("PATH", wanted->path, "The key's path below the instance's root, with or without \"~\"")
      .required("NAME", wanted->names, "The values' names")
      .footer(kFooter);
}
