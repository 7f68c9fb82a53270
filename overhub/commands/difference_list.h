// What changed, as people and programs read it: each thing with its scope, before and after. Secrets are
// hidden.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "overhub/store/history.h"

struct DifferenceRow {
  std::string kind;   // "setting", "group", "member" or "client"
  std::string scope;  // as a person names it
  std::string path;
  std::string name;
  std::optional<std::string> before;  // nothing: it was not there
  std::optional<std::string> after;
};

std::vector<DifferenceRow> rowsOf(const Differences& differences, const EverScopeNames& names);

// One line, safe on a terminal, such as "web-1: ~/Limits nMAX: 10 -> 20".
std::string lineOf(const DifferenceRow& row);

struct LogEntry {
  Revision revision;
  std::vector<DifferenceRow> rows;
};

// {"revisions": [{"revision": 7, "time": ..., "who": ..., "why": ..., "command": ..., "changes": [...]}]};
// each change has the fields of a row.
std::string jsonOf(const std::vector<LogEntry>& log);

// {"from": 3, "to": 7, "changes": [...]}
std::string jsonOf(std::int64_t from, std::int64_t to, const std::vector<DifferenceRow>& rows);
