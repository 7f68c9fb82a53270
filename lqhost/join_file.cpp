#include "lqhost/join_file.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <map>

#include "lqregistry/CLqNetwork.h"

namespace host {

bool readJoinFile(const std::string& path, JoinFile& file, std::string& error) {
  std::map<std::string, std::string> entries;
  try {
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_file(path))
      if (item.inputs.size() == 1) entries[item.name] = item.inputs[0];
  } catch (const CLI::Error& failure) {
    error = std::string(failure.what()) + ": cannot read the join file; `overhub add-client` writes one";
    return false;
  }
  const auto take = [&](const char* name, std::string& into) {
    into = entries[name];
    if (!into.empty()) return true;
    error = path + ": the join file lacks \"" + name + "\"; have `overhub add-client` write a new one";
    return false;
  };
  std::string id;
  if (!take("server-host", file.serverHost) || !take("server-name", file.serverName) ||
      !take("client-name", file.clientName) || !take("client-id", id) ||
      !take("session-key", file.sessionKey))
    return false;
  const auto [end, failure] = std::from_chars(id.data(), id.data() + id.size(), file.clientId);
  std::string key;
  // The largest is what a message can carry.
  constexpr std::uint64_t kMaxClientId = 0x7fffffffffffffff;
  if (failure != std::errc() || file.clientId > kMaxClientId || end != id.data() + id.size() ||
      file.clientId == 0) {
    error = path + ": client-id is not a positive number: " + id;
  } else if (!sessionKeyFromHex(file.sessionKey, key)) {
    error = path + ": session-key is not a key of " + std::to_string(2 * kSessionKeyBytes) +
            " hexadecimal digits";
  }
  return error.empty();
}

}  // namespace host
