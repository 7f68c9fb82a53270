#include "overhub/commands/listing.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/age_text.h"
#include "common/natural_order.h"
#include "common/text_table.h"
#include "lqregistry/UtcText.h"

namespace {

using Kind = Listing::Kind;
using Json = nlohmann::ordered_json;

constexpr int kIndent = 2;

bool isTime(Kind kind) {
  return kind == Kind::time || kind == Kind::end || kind == Kind::age;
}

std::string timeText(Kind kind, std::int64_t time, std::int64_t now) {
  if (kind == Kind::age) return programs::ageText(time, now);
  if (time != 0) return lqtext::utcText(time);
  return kind == Kind::end ? "" : "never";
}

// What is no time, as people read it.
struct ForPeople {
  std::string operator()(std::monostate /*unknown*/) const { return "?"; }
  std::string operator()(bool isSo) const { return isSo ? "yes" : "no"; }
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(std::uint64_t number) const { return std::to_string(number); }
};

// The same as programs do.
struct ForPrograms {
  Json operator()(std::monostate /*unknown*/) const { return nullptr; }
  Json operator()(const auto& value) const { return value; }
};

// Titles stand above a table in capitals, where nothing else sets them apart.
std::string inCapitals(std::string title) {
  for (char& letter : title)
    if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  return title;
}

}  // namespace

Listing::Listing(std::string name, std::vector<Column> columns)
    : name_(std::move(name)), columns_(std::move(columns)) {}

void Listing::describe(programs::CommandLine::Options options) {
  options.flag("--json", isJson_, "Print the list as JSON, for programs");
}

void Listing::addFact(Column column, Cell value) {
  facts_.emplace_back(std::move(column), std::move(value));
}

void Listing::addRow(std::vector<Cell> cells) {
  cells.resize(columns_.size());
  rows_.push_back(std::move(cells));
}

void Listing::sortBy(const std::string& key) {
  const auto column = std::find_if(columns_.begin(), columns_.end(),
                                   [&key](const Column& candidate) { return candidate.key == key; });
  if (column == columns_.end()) return;
  const auto place = static_cast<std::size_t>(column - columns_.begin());
  std::stable_sort(rows_.begin(), rows_.end(), [place](const auto& left, const auto& right) {
    const auto& a = left[place].value_;
    const auto& b = right[place].value_;
    const auto* const text = std::get_if<std::string>(&a);
    const auto* const other = std::get_if<std::string>(&b);
    return text != nullptr && other != nullptr ? programs::comesBefore(*text, *other) : a < b;
  });
}

std::string Listing::output() const {
  return isJson_ ? json() : text(now_);
}

void Listing::hideFromPeople(const std::string& key) {
  for (Column& column : columns_)
    if (column.key == key) column.isForProgramsOnly = true;
}

std::string Listing::text(std::int64_t now) const {
  const auto shown = [this](const std::vector<std::string>& cells) {
    std::vector<std::string> kept;
    for (std::size_t i = 0; i < columns_.size(); ++i)
      if (!columns_[i].isForProgramsOnly) kept.push_back(cells[i]);
    return kept;
  };
  std::vector<std::string> header;
  for (const Column& column : columns_) header.push_back(inCapitals(column.title));
  programs::TextTable table(shown(header));
  std::size_t place = 0;
  for (const Column& column : columns_) {
    if (column.isForProgramsOnly) continue;
    if (column.kind == Kind::number) table.alignRight(place);
    ++place;
  }
  for (std::size_t row = 0; row < rows_.size(); ++row) table.addRow(shown(cellTexts(row, now)));
  return table.text();
}

std::string Listing::json() const {
  const auto put = [](const Column& column, const Cell& cell, Json& object) {
    const auto* const time = std::get_if<std::int64_t>(&cell.value_);
    if (time == nullptr || !isTime(column.kind)) {
      object[column.key] = std::visit(ForPrograms(), cell.value_);
    } else if (*time != 0) {
      object[column.key] = lqtext::utcText(*time);
    }
  };
  Json rows = Json::array();
  for (const std::vector<Cell>& cells : rows_) {
    Json object = Json::object();
    for (std::size_t i = 0; i < columns_.size(); ++i) put(columns_[i], cells[i], object);
    rows.push_back(std::move(object));
  }
  Json whole = Json::object();
  for (const auto& [column, value] : facts_) put(column, value, whole);
  whole[name_] = std::move(rows);
  return whole.dump(kIndent, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::vector<std::string> Listing::cellTexts(std::size_t row, std::int64_t now) const {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    const auto& value = rows_[row][i].value_;
    const auto* const time = std::get_if<std::int64_t>(&value);
    texts.push_back(time != nullptr && isTime(columns_[i].kind) ? timeText(columns_[i].kind, *time, now)
                                                                : std::visit(ForPeople(), value));
  }
  return texts;
}
