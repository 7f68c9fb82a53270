// Clients to be added, as a file lists them: CSV with a line each, of name, groups and host. The groups of
// one client have ";" between them; groups and host may be left out, and so may the first line with the
// columns' names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"

struct ListedClient {
  std::string name;
  std::vector<std::string> groups;
  std::string host;
};

// All of them or an error that names the file and the line; a name stands only once in it.
CWmError readClientList(const std::string& file, std::vector<ListedClient>& clients);

// Whether it can be added under that name and called at that host; the error says why not.
CWmError checkListed(const ListedClient& client);

// Words with that character between them; none for an empty text.
std::vector<std::string> splitWords(const std::string& text, char separator);
