// `overhub set`: adds or replaces a record of a client's batch.
#include <strings.h>
#include <unistd.h>

#include <array>
#include <cstring>  // explicit_bzero
#include <memory>
#include <string_view>

#include "overhub/commands/client_batch.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/time_argument.h"
#include "overhub/store/batch_edit.h"

namespace {

constexpr const char* kFooter =
    R"(Paths: "SOFTWARE/..." is absolute, anything else is below the root of the client's instance, which is "~".
Quote "~", or the shell puts your home directory in its place.
The client applies the record at its next synchronisation.

Examples:
  overhub set web-1 '~/Limits' nMAX 20
  overhub set web-1 '~/Limits' nMAX --delete            (the client removes the value)
  overhub set web-1 '~/Proxy' sPASSWORD --secret < password.txt
  overhub set @static '~/Limits' nMAX 20                (what clients get that ask for the static list))";

struct Set {
  std::string client;
  RecordChange change;
  bool isSecret = false;  // the value comes from standard input
  std::string until;      // as time_argument.h has it; empty: none
  bool isForced = false;  // also what may cut the machine off
};

CWmError misused(std::string why) {
  return {kLqErrArgument, std::move(why)};
}

// A longer secret is a mistake, such as the wrong file.
constexpr std::size_t kMaxSecret = 64U << 10;

// Standard input up to its end, without the newline that a shell puts there.
CWmError readSecret(std::optional<pstring>& secret) {
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
  const RecordChange& change = wanted.change;
  if (wanted.isSecret && change.value)
    return misused("--secret takes the value from standard input, not from the command line");
  if (!wanted.isSecret && strcasecmp(change.type.c_str(), ENCRYPTEDTYPE) == 0)
    return misused("a protected value is set with --secret, which sets its type too");
  const bool needsValue = !wanted.isSecret && !change.isRemoval && change.type != KEYTYPE;
  if (needsValue && !change.value) {
    return misused(
        "VALUE is missing (for an empty value write \"\"; none is needed with --delete, --secret or "
        "--type KEY)");
  }
  return {};
}

int set(const DataStore& store, const Set& wanted) {
  RecordChange change = wanted.change;  // and the secret no longer than that
  CWmError error = checkCombination(wanted);
  if (!error.IsError() && !wanted.until.empty()) error = readTime(wanted.until, change.until.emplace());
  if (!error.IsError() && wanted.isSecret) error = readSecret(change.secret);
  const OBGui::RegistryKeyInfo record = recordOf(change);
  if (!error.IsError()) error = checkRecord(record);
  if (error.IsError())
    return complain(kExitUsage, std::string(error.AsString()) + "; see \"overhub set --help\"");
  if (!wanted.isForced) error = checkHarm(record);
  if (error.IsError())
    return complain(kExitRefused, std::string(error.AsString()) + ". --force sets it all the same");
  if (const std::string doubt = doubtAbout(record); !doubt.empty()) warn(doubt);
  return editBatch(store, wanted.client, [&change](OBGui::KeyList& keys) {
    setRecord(keys, change);
    return kExitOk;
  });
}

}  // namespace

void addSet(programs::CommandLine& line, const std::string& data) {
  const auto wanted = std::make_shared<Set>();
  RecordChange& change = wanted->change;
  line.add("set", "Add or replace a record of a client's batch",
           onExisting(data, [wanted](const DataStore& store) { return set(store, *wanted); }))
      .required("CLIENT", wanted->client, "The client's name, or @static for the static list")
      .required("PATH", change.path, "The key's path")
      .required("NAME", change.name, "The value's name; with --type KEY, the sub-key's")
      .option("VALUE", change.value, "The value")
      .option("--type WORD", change.type, "Type word: STRING, or KEY for a sub-key")
      .flag("--secret", wanted->isSecret, "Take the value from standard input and keep it encrypted")
      .excludes("--type")
      .flag("--delete", change.isRemoval, "The client is to remove the value")
      .excludes("--secret")
      .flag("--disabled", change.isDisabled, "Not wanted on the client for now, which removes it too")
      .flag(
          "--force", wanted->isForced,
          "Set also what a client needs to come back to its server, such as the server's host or the switch "
          "of the synchronisation")
      .option(
          "--until TIME", wanted->until,
          std::string("When the value ends: ") + kTimeForms +
              ". Kept as the record NAME_UNTIL, which counts for every NAME of the batch, whatever its path")
      .footer(kFooter);
}
