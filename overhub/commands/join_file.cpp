#include "overhub/commands/join_file.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view kWordCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._:%-";
constexpr std::size_t kMaxWord = 255;

std::string quotedLine(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + value + "\"\n";
}

}  // namespace

bool fitsJoinFile(const std::string& word) {
  return !word.empty() && word.size() <= kMaxWord &&
         word.find_first_not_of(kWordCharacters) == std::string::npos;
}

std::string joinFileText(const JoinFile& join) {
  return "# Join file of client " + join.clientName +
         " for \"lqhost join FILE\". It holds the client's session key: keep it secret, delete it after "
         "use.\n" +
         quotedLine("server-host", join.serverHost) + quotedLine("server-name", join.serverName) +
         quotedLine("client-name", join.clientName) + "client-id=" + std::to_string(join.clientId) + "\n" +
         quotedLine("session-key", join.sessionKeyHex);
}
