#include "overhub/commands/difference_list.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "common/terminal_text.h"
#include "lqregistry/UtcText.h"

namespace {

using Json = nlohmann::ordered_json;
using Kind = ClientDifference::Kind;

std::optional<std::string> numberText(const std::optional<std::int64_t>& number) {
  if (!number) return std::nullopt;
  return "number " + std::to_string(*number);
}

DifferenceRow rowOf(const ClientDifference& difference) {
  DifferenceRow row{
      .kind = "client", .scope = difference.client.name, .path = "", .name = "", .before = {}, .after = {}};
  const std::string there = "client " + std::to_string(difference.client.id);
  switch (difference.kind) {
    case Kind::added:
      row.after = there;
      break;
    case Kind::removed:
      row.before = there;
      break;
    case Kind::withdrawn:
      row.before = there;
      row.after = "everything withdrawn";
      break;
    case Kind::takenBack:
      row.before = "everything withdrawn";
      row.after = there;
      break;
  }
  return row;
}

std::string textOf(const std::optional<std::string>& value, const std::string& kind) {
  if (value) return programs::escapedForTerminal(*value);
  return kind == "setting" ? "(not set)" : "(none)";
}

Json jsonOf(const std::vector<DifferenceRow>& rows) {
  Json list = Json::array();
  const auto orNull = [](const std::optional<std::string>& value) { return value ? Json(*value) : Json(); };
  for (const DifferenceRow& row : rows) {
    Json object;
    object["kind"] = row.kind;
    object["scope"] = row.scope;
    object["path"] = row.path;
    object["name"] = row.name;
    object["before"] = orNull(row.before);
    object["after"] = orNull(row.after);
    list.push_back(std::move(object));
  }
  return list;
}

// In ASCII, so that it drives no terminal; what is no UTF-8 becomes U+FFFD.
std::string dump(const Json& json) {
  constexpr int kIndent = 2;
  return json.dump(kIndent, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::vector<DifferenceRow> rowsOf(const Differences& differences, const EverScopeNames& names) {
  std::vector<DifferenceRow> rows;
  for (const ClientDifference& client : differences.clients) rows.push_back(rowOf(client));
  for (const GroupDifference& group : differences.groups)
    rows.push_back({"group", "@" + group.name, "", "", numberText(group.before), numberText(group.after)});
  for (const auto& [member, isMember] : differences.members) {
    DifferenceRow row{"member", "@" + member.group, "", member.pattern, {}, {}};
    (isMember ? row.after : row.before) = "member";
    rows.push_back(std::move(row));
  }
  for (const SettingDifference& setting : differences.settings) {
    DifferenceRow row{"setting", names.of(setting.scope), setting.identity.place, setting.identity.name, {},
                      {}};
    ShownDifference texts = shown(setting);
    if (setting.before) row.before = std::move(texts.before);
    if (setting.after) row.after = std::move(texts.after);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string lineOf(const DifferenceRow& row) {
  std::string what = row.kind;
  if (row.kind == "setting") what = row.path;
  if (!row.name.empty()) what += " " + row.name;
  return programs::escapedForTerminal(row.scope + ": " + what) + ": " + textOf(row.before, row.kind) +
         " -> " + textOf(row.after, row.kind);
}

std::string jsonOf(const std::vector<LogEntry>& log) {
  Json list = Json::array();
  for (const auto& [revision, rows] : log) {
    Json object;
    object["revision"] = revision.number;
    object["time"] = lqtext::utcText(revision.time);
    object["who"] = revision.who;
    object["why"] = revision.why;
    object["command"] = revision.command;
    object["changes"] = jsonOf(rows);
    list.push_back(std::move(object));
  }
  Json whole;
  whole["revisions"] = std::move(list);
  return dump(whole);
}

std::string jsonOf(std::int64_t from, std::int64_t to, const std::vector<DifferenceRow>& rows) {
  Json whole;
  whole["from"] = from;
  whole["to"] = to;
  whole["changes"] = jsonOf(rows);
  return dump(whole);
}
