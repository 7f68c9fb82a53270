#include "common/join_file.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

#include "lqregistry/CLqNetwork.h"

namespace programs {

namespace {

constexpr const char* kServerHost = "server-host";
constexpr const char* kServerName = "server-name";
constexpr const char* kClientName = "client-name";
constexpr const char* kClientId = "client-id";
constexpr const char* kSessionKey = "session-key";

std::string quotedLine(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + value + "\"\n";
}

CWmError unusable(std::string why) {
  return {kLqErrFile, std::move(why)};
}

}  // namespace

std::string joinFileText(const JoinFile& join) {
  return "# Join file of client " + join.clientName +
         " for \"lqhost join FILE\". It holds the client's session key: keep it secret, delete it after "
         "use.\n" +
         quotedLine(kServerHost, join.serverHost) + quotedLine(kServerName, join.serverName) +
         quotedLine(kClientName, join.clientName) + std::string(kClientId) + "=" +
         std::to_string(join.clientId) + "\n" + quotedLine(kSessionKey, join.sessionKeyHex);
}

CWmError readJoinFile(const std::string& path, JoinFile& file) {
  std::map<std::string, std::string> entries;
  try {
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_file(path))
      if (item.inputs.size() == 1) entries[item.name] = item.inputs[0];
  } catch (const CLI::Error& failure) {
    return unusable(std::string(failure.what()) +
                    ": cannot read the join file; `overhub add-client` writes one");
  }
  std::string id;
  const std::pair<const char*, std::string&> fields[] = {{kServerHost, file.serverHost},
                                                         {kServerName, file.serverName},
                                                         {kClientName, file.clientName},
                                                         {kClientId, id},
                                                         {kSessionKey, file.sessionKeyHex}};
  for (const auto& [name, field] : fields) {
    field = entries[name];
    if (field.empty())
      return unusable(path + ": the join file lacks \"" + name +
                      "\"; have `overhub add-client` write a new one");
  }
  const auto [end, failure] = std::from_chars(id.data(), id.data() + id.size(), file.clientId);
  std::string key;
  if (failure != std::errc() || end != id.data() + id.size() || file.clientId <= 0)
    return unusable(path + ": client-id is not a positive number: " + id);
  if (!sessionKeyFromHex(file.sessionKeyHex, key))
    return unusable(path + ": session-key is not a key of " + std::to_string(2 * kSessionKeyBytes) +
                    " hexadecimal digits");
  return {};
}

}  // namespace programs
