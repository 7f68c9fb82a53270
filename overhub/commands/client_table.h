// A table with a row for each client, where one that cannot be read does not hide the others.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

// Fills the cells that follow the client's name; none at all leaves the client out. On an error, those that
// were not filled are unknown.
using ClientRow = std::function<CWmError(const std::string& client, std::vector<std::string>& cells)>;

// Prints the table, and then what could not be read; an exit code.
[[nodiscard]] int printClients(const DataStore& store, const std::vector<std::string>& header,
                               const ClientRow& row);
