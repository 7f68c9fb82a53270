#include "platform/network/target.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "lqregistry/CLqNetwork.h"

namespace {

constexpr char kSeparator = '*';

// Cuts the last part off `text`; false when there is no separator left.
bool takeLast(std::string_view& text, std::string_view& part) {
  const std::size_t separator = text.rfind(kSeparator);
  if (separator == std::string_view::npos) return false;
  part = text.substr(separator + 1);
  text = text.substr(0, separator);
  return true;
}

bool toPort(std::string_view text, std::uint16_t& port) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
  return fault == std::errc() && end == text.data() + text.size() && port != 0;
}

template <std::size_t Size>
void copyName(const std::string& name, char (&out)[Size]) {
  std::memset(out, 0, Size);
  std::memcpy(out, name.data(), std::min(name.size(), Size - 1));
}

}  // namespace

void lqsExecuteRemoteDllType::setNames(const std::string& library, const std::string& entry) {
  copyName(library, libraryName);
  copyName(entry, entryName);
}

std::string MangleHostName(const std::string& host, const std::string& client, std::uint16_t firstPort,
                           std::uint16_t secondPort) {
  return host + kSeparator + client + kSeparator + std::to_string(firstPort) + kSeparator +
         std::to_string(secondPort);
}

CWmError parseTarget(const std::string& text, Target& target) {
  std::string_view rest = text;
  std::string_view first;
  std::string_view second;
  std::string_view client;
  Target parsed;
  if (!takeLast(rest, second) || !takeLast(rest, first) || !takeLast(rest, client) ||
      !toPort(first, parsed.ports[0]) || !toPort(second, parsed.ports[1]) || rest.empty() ||
      rest.find('\0') != std::string_view::npos)
    return {kLqErrBadTarget, "\"" + text + "\" does not name a server (host*client*port*port)"};
  parsed.host = rest;
  parsed.client = client;
  target = std::move(parsed);
  return {};
}
