// `overhub set`: adds or replaces a record of a client's batch.
#include <strings.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstring>  // explicit_bzero
#include <ctime>
#include <memory>
#include <string_view>

#include "lqregistry/LqRegistryFile.h"
#include "overhub/commands/client_batch.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/data_directory.h"
#include "overhub/commands/reporting.h"
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
  std::string until;      // seconds since the epoch, or +SECONDS from now; empty: none
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

CWmError readTime(const std::string& text, std::optional<std::int64_t>& time) {
  const bool isRelative = text.starts_with('+');
  const char* const begin = text.data() + (isRelative ? 1 : 0);
  const char* const end = text.data() + text.size();
  std::int64_t seconds = 0;
  const auto [stop, fault] = std::from_chars(begin, end, seconds);
  const std::int64_t start = isRelative ? static_cast<std::int64_t>(std::time(nullptr)) : 0;
  std::int64_t sum = 0;
  if (fault != std::errc() || stop != end || seconds < 0 || __builtin_add_overflow(start, seconds, &sum))
    return misused("--until takes seconds since the epoch, or +SECONDS from now; \"" + text +
                   "\" is neither");
  time = sum;
  return {};
}

// What does not go together is an error.
CWmError checkCombination(const Set& wanted) {
  const RecordChange& change = wanted.change;
  if (wanted.isSecret && change.value)
    return misused("--secret takes the value from standard input, not from the command line");
  if (!wanted.isSecret && strcasecmp(change.type.c_str(), ENCRYPTEDTYPE) == 0)
    return misused("a protected value is set with --secret, which sets its type too");
  if (change.type.empty()) return misused("--type takes a word");
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
  if (!error.IsError() && !wanted.until.empty()) error = readTime(wanted.until, change.until);
  if (!error.IsError() && wanted.isSecret) error = readSecret(change.secret);
  if (error.IsError())
    return complain(kExitUsage, std::string(error.AsString()) + "; see \"overhub set --help\"");
  if (change.name.empty() || change.name.size() > lqregistry::kMaxNameBytes ||
      change.path.size() > lqregistry::kMaxPathBytes) {
    return complain(kExitUsage, "a value's name has 1 to " + std::to_string(lqregistry::kMaxNameBytes) +
                                    " bytes, a key's path at most " +
                                    std::to_string(lqregistry::kMaxPathBytes));
  }
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
      .option("--type WORD", change.type, "Type word, such as STRING or KEY")
      .flag("--secret", wanted->isSecret, "Take the value from standard input and keep it encrypted")
      .excludes("--type")
      .flag("--delete", change.isRemoval, "The client is to remove the value")
      .excludes("--secret")
      .flag("--disabled", change.isDisabled, "Not wanted on the client for now, which removes it too")
      .option("--until TIME", wanted->until,
              "When the value ends: seconds since the epoch, or +SECONDS from now. Kept as the record "
              "NAME_UNTIL, which counts for every NAME of the batch, whatever its path")
      .footer(kFooter);
}
