// `overhub fetch`: values of one key of a client's registry.
#include <memory>

#include "common/text_table.h"
#include "lqregistry/App.h"
#include "lqregistry/LqSettings.h"
#include "overhub/commands/client_link.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFooter =
    R"(Says which values could not be had, and exits with 1 then.

Example:
  overhub fetch web-1 '~/Limits' nMAX nMIN
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
  ClientLink link;
  std::string path;
  std::vector<std::string> names;
};

int fetch(const Store& store, Fetch& wanted) {
  if (wanted.path.starts_with(subKeyPath(lqsettings::kAbsoluteRoot, "")))
    return complain(kExitUsage, "a client hands out only what is below the root of its instance, and \"" +
                                    wanted.path + "\" is not");
  App::RegisterSubsystem();
  programs::TextTable table({"NAME", "VALUE"});
  bool isWhole = true;
  for (const std::string& name : wanted.names) {
    App::FetchClientRegistry answer;
    if (const int exitCode = wanted.link.ask(store, fetchOf(wanted.path, name), answer); exitCode != kExitOk)
      return exitCode;
    const App::KeyList& found = answer.keyInfo->keys;
    const bool isFound = !found.empty() && found[0].value.isSet();
    isWhole = isWhole && isFound;
    table.addRow({name, isFound ? found[0].value.get() : kNotFetched});
  }
  print(table.text());
  if (isWhole) return kExitOk;
  return complain(kExitRefused,
                  "a fetch has no room for longer values; `lqhost upload` on the client brings those "
                  "of up to 10,239 bytes");
}

}  // namespace

void addFetch(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Fetch>();
  auto options = line.add("fetch", "Print values of a client's registry",
                          onStore(place, [wanted](const Store& store) { return fetch(store, *wanted); }));
  wanted->link.describe(options);
  options.required("PATH", wanted->path, "The key's path below the instance's root, with or without \"~\"")
      .required("NAME", wanted->names, "The values' names")
      .footer(kFooter);
}
