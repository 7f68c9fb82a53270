#include "overhub/commands/set_options.h"

#include <strings.h>
#include <unistd.h>
#include <cstring>  // explicit_bzero

#include <array>
#include <charconv>
#include <ctime>

namespace {

// A longer secret is a mistake, such as the wrong file.
constexpr std::size_t kMaxSecret = 64U << 10;

// Standard input up to its end, without the newline that a shell puts there. Empty, or why there is none.
std::string readSecret(std::optional<pstring>& secret) {
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
  return isUsable ? "" : "--secret needs 1 to 65536 bytes without NUL on standard input";
}

// Empty, or why the text is no point in time.
std::string readTime(const std::string& text, std::optional<std::int64_t>& time) {
  const bool isRelative = text.starts_with('+');
  const char* const begin = text.data() + (isRelative ? 1 : 0);
  const char* const end = text.data() + text.size();
  std::int64_t seconds = 0;
  const auto [stop, fault] = std::from_chars(begin, end, seconds);
  const std::int64_t start = isRelative ? static_cast<std::int64_t>(std::time(nullptr)) : 0;
  std::int64_t sum = 0;
  if (fault != std::errc() || stop != end || seconds < 0 || __builtin_add_overflow(start, seconds, &sum))
    return "--until takes seconds since the epoch, or +SECONDS from now; \"" + text + "\" is neither";
  time = sum;
  return {};
}

// Empty, or what does not go together.
std::string checkCombination(const SetOptions& options) {
  if (options.isSecret && options.value)
    return "--secret takes the value from standard input, not from the command line";
  if (!options.isSecret && strcasecmp(options.type.c_str(), kTypeEncrypted) == 0)
    return "a protected value is set with --secret, which sets its type too";
  if (options.type.empty()) return "--type takes a word";
  const bool needsValue = !options.isSecret && !options.isRemoval && options.type != kTypeKey;
  if (needsValue && !options.value)
    return "VALUE is missing (for an empty value write \"\"; none is needed with --delete, --secret or "
           "--type KEY)";
  return {};
}

}  // namespace

std::string changeFromOptions(const SetOptions& options, RecordChange& change) {
  std::string reason = checkCombination(options);
  change.path = options.path;
  change.name = options.name;
  change.type = options.type;
  change.value = options.value;
  change.isRemoval = options.isRemoval;
  change.isDisabled = options.isDisabled;
  if (reason.empty() && !options.until.empty()) reason = readTime(options.until, change.until);
  if (reason.empty() && options.isSecret) reason = readSecret(change.secret);
  return reason;
}
