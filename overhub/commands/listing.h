// What every command that lists prints: a table for people, or with --json the same rows for programs.
//
// The columns are told once, where the command is put together:
//
//   const auto list = std::make_shared<Listing>("clients", std::vector<Listing::Column>{
//       {"Name", "name", Listing::Kind::text}, {"Last seen", "lastSeen", Listing::Kind::age}});
//   list->describe(line.add("clients", "List the clients", action));
//
// and the action adds rows and prints output(). One thread at a time.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "common/command_line.h"

class Listing {
 public:
  enum class Kind {
    text,
    number,
    yesNo,
    time,  // seconds since the epoch, 0 for never; people read UTC, programs ISO 8601, and nothing for never
    end,   // the same for a time at which something ends; people read nothing either where it does not
    age    // the same, of which people read how long ago that was
  };

  struct Column {
    std::string title;  // for people: "Last seen"
    std::string key;    // for programs: "lastSeen"; never changes once a release had it
    Kind kind;
    bool isForProgramsOnly = false;
  };

  // What stands in one place. Made without a value it is something that could not be found out: "?", or null.
  class Cell {
   public:
    Cell() = default;
    Cell(std::string text) : value_(std::move(text)) {}
    Cell(const char* text) : value_(text) {}
    // A yes or no, or a number; a template, as every pointer is a yes else.
    template <std::integral Value>
    Cell(Value value) {
      if constexpr (std::same_as<Value, bool>) {
        value_ = value;
      } else if (std::in_range<std::int64_t>(value)) {
        value_ = static_cast<std::int64_t>(value);
      } else {
        value_ = static_cast<std::uint64_t>(value);
      }
    }

   private:
    friend class Listing;
    // In the order in which cells of one column are sorted that hold different ones.
    std::variant<std::monostate, bool, std::int64_t, std::uint64_t, std::string> value_;
  };

  // `name` is what programs find the rows under.
  Listing(std::string name, std::vector<Column> columns);

  // Adds --json to a command. What is given there is kept here, so the list must outlive the command line.
  void describe(programs::CommandLine::Options options);

  // Something that holds for the whole list: programs find it beside the rows, in the order of the calls, and
  // who prints the list tells people in words of their own.
  void addFact(Column column, Cell value);

  // Leaves the column with this key out of the table for people.
  void hideFromPeople(const std::string& key);

  // A cell for each column; those that are missing at the end could not be found out.
  void addRow(std::vector<Cell> cells);

  // Sorts by the column with this key: names as people count, numbers and times by size, the unknown first.
  // Rows that are the same there keep their order.
  void sortBy(const std::string& key);

  bool isForPrograms() const { return isJson_; }
  // The time at which the rows were true, from which ages are counted: the store's, by whose clock the times
  // in them are. To be said where there are ages.
  void asOf(std::int64_t now) { now_ = now; }
  // What the command prints: text() as of then, or json().
  std::string output() const;
  std::string text(std::int64_t now) const;
  // In ASCII, with everything else escaped, so it drives no terminal; bytes that are not UTF-8 become U+FFFD.
  // Keys in the order of the columns.
  std::string json() const;

  // For others that lay rows out: the cells of one row as people read them, unescaped.
  const std::vector<Column>& columns() const { return columns_; }
  std::size_t rowCount() const { return rows_.size(); }
  std::vector<std::string> cellTexts(std::size_t row, std::int64_t now) const;

 private:
  std::string name_;
  std::vector<Column> columns_;
  std::vector<std::pair<Column, Cell>> facts_;
  std::vector<std::vector<Cell>> rows_;
  bool isJson_ = false;
  std::int64_t now_ = 0;
};
