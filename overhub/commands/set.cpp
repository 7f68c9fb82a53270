// `overhub set`: sets a value for machines, groups or all.
#include <strings.h>
#include <unistd.h>

#include <array>
#include <cstring>  // explicit_bzero
#include <memory>
#include <string_view>

#include "overhub/commands/change_options.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/definitions.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/commands/time_argument.h"
#include "records/secret_values.h"

namespace {

constexpr const char* kFooter =
    R"(Paths: "SOFTWARE/..." is absolute, anything else is below the root of the client's instance, which is "~".
Quote "~", or the shell puts your home directory in its place.
Of what is set for a machine, for its groups and for all, the nearest counts: the machine's own before its groups',
that of the group with the higher number before the others, those before @all. A machine applies it at its next
synchronisation.

Examples:
  overhub set web-1 '~/Limits' nMAX 20
  overhub set @all '~/Limits' nMAX 50 --why "ticket 4711" --dry-run
  overhub set @berlin,web-2 '~/Trial' bON 1 --until +1d
  overhub set web-1 '~/Limits' nMAX --delete            (the client removes the value)
  overhub set web-1 '~/Proxy' sPASSWORD --secret < password.txt
  overhub set @static '~/Limits' nMAX 20                (what clients get that ask for the static list))";

struct Set {
  std::string target;
  std::string path;
  std::string name;
  std::string type = STRINGTYPE;
  std::optional<std::string> value;
  bool isSecret = false;    // the value comes from standard input
  bool isRemoval = false;   // the client is to remove the value
  bool isDisabled = false;  // not wanted for now
  std::string until;        // as time_argument.h has it; empty: none
  std::string definitions;  // their file; empty: that of the store's directory
  ChangeOptions change;
};

CWmError misused(std::string why) {
  return {kLqErrArgument, std::move(why)};
}

// A longer secret is a mistake, such as the wrong file.
constexpr std::size_t kMaxSecret = 64U << 10;

// Standard input up to its end, without the newline that a shell puts there.
CWmError readSecret(pstring& secret) {
  std::array<char, kMaxSecret + 1> buffer{};
  std::size_t size = 0;
  ssize_t got = 0;
  while (size < buffer.size() && (got = ::read(STDIN_FILENO, buffer.data() + size, buffer.size() - size)) > 0)
    size += static_cast<std::size_t>(got);
  const bool isWhole = got == 0;
  if (size > 0 && buffer[size - 1] == '\n') --size;
  const std::string_view text(buffer.data(), size);
  const bool isUsable = isWhole && !text.empty() && text.find('\0') == std::string_view::npos;
  if (isUsable) secret = pstring(text);
  explicit_bzero(buffer.data(), buffer.size());
  return isUsable ? CWmError() : misused("--secret needs 1 to 65536 bytes without NUL on standard input");
}

// What does not go together is an error.
CWmError checkCombination(const Set& wanted) {
  if (wanted.isSecret && wanted.value)
    return misused("--secret takes the value from standard input, not from the command line");
  if (!wanted.isSecret && strcasecmp(wanted.type.c_str(), ENCRYPTEDTYPE) == 0)
    return misused("a protected value is set with --secret, which sets its type too");
  if (!wanted.until.empty() && (wanted.isRemoval || wanted.type == KEYTYPE))
    return misused("--until says when a value ends; a removal and a sub-key have no end");
  const bool needsValue = !wanted.isSecret && !wanted.isRemoval && wanted.type != KEYTYPE;
  if (needsValue && !wanted.value) {
    return misused(
        "VALUE is missing (for an empty value write \"\"; none is needed with --delete, --secret or "
        "--type KEY)");
  }
  return {};
}

CWmError makeRecord(const Set& wanted, OBGui::RegistryKeyInfo& record) {
  record.keyPath = wanted.path;
  record.valueName = wanted.name;
  record.valueType = wanted.type;
  if (wanted.value) record.value = *wanted.value;
  record.deleteFlag = wanted.isRemoval ? 1 : 0;
  record.enabledFlag = wanted.isDisabled ? 0 : 1;
  if (!wanted.isSecret) return {};
  record.valueType = std::string(ENCRYPTEDTYPE);
  record.value = std::string(kHiddenSecret);
  return readSecret(record.encryptedValue.edit());
}

// Whether the record is as somebody has defined it. --force does not help: it is there for changes that may
// cut a machine off, and whoever makes such a one mistypes as easily as anybody. What should fit is for the
// definitions to say.
int checkDefined(const Store& store, const Set& wanted, const OBGui::RegistryKeyInfo& record) {
  Definitions definitions;
  CWmError error = loadDefinitions(wanted.definitions, store.directory(), definitions);
  if (error.IsError()) return complain(kExitDataUnusable, error.AsString());
  error = definitions.check(record);
  if (error.IsError()) return complain(kExitRefused, error.AsString());
  if (const std::string doubt = definitions.doubtAbout(record); !doubt.empty()) warn(doubt);
  return kExitOk;
}

int set(const Store& store, const Set& wanted) {
  OBGui::RegistryKeyInfo record;
  TypedTime until;
  CWmError error = checkCombination(wanted);
  if (!error.IsError() && !wanted.until.empty()) error = readTime(wanted.until, until);
  if (!error.IsError()) error = makeRecord(wanted, record);
  if (!error.IsError()) error = checkRecord(record);
  if (error.IsError())
    return complain(kExitUsage, std::string(error.AsString()) + "; see \"overhub set --help\"");
  if (const int exitCode = checkDefined(store, wanted, record); exitCode != kExitOk) return exitCode;
  if (!wanted.change.isForced() && !wanted.change.isDryRun()) error = checkHarm(record);
  if (error.IsError())
    return complain(kExitRefused, std::string(error.AsString()) + ". --force sets it all the same");
  if (const std::string doubt = doubtAbout(record); !doubt.empty()) warn(doubt);

  Setting setting = settingOf("", record);
  if (wanted.isSecret && !setting.isSecret())
    return complain(kExitDataUnusable, "the secret cannot be protected with " + store.keyFile());
  return wanted.change.make(store, "set " + wanted.target + " " + wanted.path + " " + wanted.name,
                            [&](soci::session& session, ChangeSet& changes) {
                              std::vector<std::string> scopes;
                              CWmError fault = scopesOfTarget(session, wanted.target, scopes);
                              setting.expires = until.at(store.database().now(session));
                              for (const std::string& scope : scopes) {
                                setting.scope = scope;
                                changes.put(setting);
                              }
                              return fault;
                            });
}

}  // namespace

void addSet(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Set>();
  auto options = line.add("set", "Set a value for machines, groups or all",
                          onStore(place, [wanted](const Store& store) { return set(store, *wanted); }));
  options.required("TARGET", wanted->target, std::string(kTargetForms) + "; @static for the static list")
      .required("PATH", wanted->path, "The key's path")
      .required("NAME", wanted->name, "The value's name; with --type KEY, the sub-key's")
      .option("VALUE", wanted->value, "The value")
      .option("--type WORD", wanted->type, "Type word: STRING, or KEY for a sub-key")
      .flag("--secret", wanted->isSecret, "Take the value from standard input and keep it encrypted")
      .excludes("--type")
      .flag("--delete", wanted->isRemoval, "The client is to remove the value")
      .excludes("--secret")
      .flag("--disabled", wanted->isDisabled, "Not wanted on the client for now, which removes it too")
      .option("--until TIME", wanted->until,
              std::string("When the value ends: ") + kTimeForms +
                  ". Sent as NAME_UNTIL, by which a client ends every NAME of its batch, whatever its path");
  describeDefinitions(options, wanted->definitions);
  wanted->change.describe(options);
  options.footer(kFooter);
}
