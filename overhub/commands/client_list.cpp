#include "overhub/commands/client_list.h"

#include <algorithm>
#include <set>

#include "common/host_name.h"
#include "overhub/store/client_name.h"
#include "overhub/store/file_access.h"

namespace {

std::string trimmed(const std::string& text) {
  constexpr const char* kBlanks = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return {};
  std::string word = text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
  // A spreadsheet puts quotes around what it likes.
  if (word.size() >= 2 && word.front() == '"' && word.back() == '"') word = word.substr(1, word.size() - 2);
  return word;
}

CWmError readLine(const std::string& line, ListedClient& client) {
  const std::vector<std::string> cells = splitWords(line, ',');
  if (cells.size() > 3) return {kLqErrArgument, "has more than name, groups and host"};
  client.name = trimmed(cells[0]);
  if (cells.size() > 1)
    for (const std::string& group : splitWords(trimmed(cells[1]), ';'))
      client.groups.push_back(trimmed(group));
  if (cells.size() > 2) client.host = trimmed(cells[2]);
  return checkListed(client);
}

}  // namespace

std::vector<std::string> splitWords(const std::string& text, char separator) {
  std::vector<std::string> words;
  if (text.empty()) return words;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find(separator, at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

CWmError checkListed(const ListedClient& client) {
  if (!isClientName(client.name)) {
    return {kLqErrArgument, "\"" + client.name +
                                "\" cannot be a client's name: 1 to 64 characters of A-Z a-z 0-9 . _ - "
                                "without a dot at the start"};
  }
  if (!client.host.empty() && !programs::isAcceptableHostName(client.host))
    return {kLqErrArgument, "\"" + client.host + "\" is no host name or address"};
  return {};
}

CWmError readClientList(const std::string& file, std::vector<ListedClient>& clients) {
  std::string text;
  CWmError error = file_access::readWhole(file, text);
  if (error.IsError()) return error;
  std::set<std::string> names;
  std::size_t number = 0;
  for (const std::string& line : splitWords(text, '\n')) {
    ++number;
    if (trimmed(line).empty() || (number == 1 && trimmed(splitWords(line, ',')[0]) == "name")) continue;
    ListedClient client;
    error = readLine(line, client);
    if (!error.IsError() && !names.insert(client.name).second)
      error = {kLqErrArgument, "\"" + client.name + "\" stands in it twice"};
    if (error.IsError())
      return {kLqErrArgument, file + " line " + std::to_string(number) + ": " + error.AsString()};
    clients.push_back(std::move(client));
  }
  return {};
}
