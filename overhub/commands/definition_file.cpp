#include "overhub/commands/definition_file.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <utility>

#include "lqregistry/FXFile.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/PrintableText.h"
#include "overhub/commands/record_check.h"
#include "overhub/store/setting_place.h"

namespace {

using nlohmann::json;

// Tens of thousands of settings; a larger file is another one.
constexpr std::size_t kMaxFile = 16U << 20;

constexpr const char* kSettings = "settings";
constexpr std::array<std::string_view, 10> kFields{"path", "name",    "type",   "kind",     "min",
                                                   "max",  "choices", "secret", "sentence", "needsRestart"};

std::string inQuotes(std::string_view text) {
  return '"' + std::string(text) + '"';
}

bool isPrintable(std::string_view text) {
  while (const std::size_t length = lqtext::printableLength(text)) text.remove_prefix(length);
  return text.empty();
}

bool isWholeNumber(const json& value) {
  return value.is_number_integer() &&
         !(value.is_number_unsigned() &&
           value.get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()});
}

// A "*" in the middle of a component would stand for any part of it, which nobody needs.
bool isAnyRestInside(std::string_view text) {
  for (std::size_t at = 0; (at = text.find(kAnyRest, at)) != std::string_view::npos;)
    if (++at < text.size() && text[at] != '/') return true;
  return false;
}

// Takes the fields of one entry, one after the other; the first thing that is wrong is kept.
class Entry {
 public:
  explicit Entry(const json& fields) : fields_(fields) {}

  Definition read();
  const std::string& fault() const { return fault_; }

 private:
  bool has(const char* field) const { return fields_.contains(field); }
  bool hasRange() const { return has("min") || has("max"); }
  void fail(std::string why) {
    if (fault_.empty()) fault_ = std::move(why);
  }
  void failIf(bool isWrong, const char* why) {
    if (isWrong) fail(why);
  }
  // Each leaves `into` as it is when the field is missing.
  void take(const char* field, std::string& into);
  void take(const char* field, bool& into);
  void take(const char* field, std::int64_t& into);
  void take(const char* field, std::vector<std::string>& into, bool isNumber);
  void require(const char* field, std::string& into);

  void checkFields();
  void readPlace(Definition& definition);
  void readFitting(Definition& definition);

  const json& fields_;
  std::string fault_;
};

void Entry::take(const char* field, std::string& into) {
  if (!has(field)) return;
  if (fields_[field].is_string())
    into = fields_[field].get<std::string>();
  else
    fail(inQuotes(field) + " has to be a text");
}

void Entry::take(const char* field, bool& into) {
  if (!has(field)) return;
  if (fields_[field].is_boolean())
    into = fields_[field].get<bool>();
  else
    fail(inQuotes(field) + " has to be true or false");
}

void Entry::take(const char* field, std::int64_t& into) {
  if (!has(field)) return;
  if (isWholeNumber(fields_[field]))
    into = fields_[field].get<std::int64_t>();
  else
    fail(inQuotes(field) + " has to be a whole number of 64 bits, without quotation marks");
}

void Entry::take(const char* field, std::vector<std::string>& into, bool isNumber) {
  if (!has(field)) return;
  const json& list = fields_[field];
  if (!list.is_array() || list.empty()) return fail(inQuotes(field) + " has to be a list that is not empty");
  for (const json& choice : list) {
    if (isNumber ? !isWholeNumber(choice) : !choice.is_string())
      return fail(inQuotes(field) + (isNumber ? " of a number are whole numbers" : " of a text are texts"));
    std::string text = isNumber ? std::to_string(choice.get<std::int64_t>()) : choice.get<std::string>();
    if (std::find(into.begin(), into.end(), text) != into.end())
      return fail(inQuotes(field) + " has " + inQuotes(text) + " twice");
    into.push_back(std::move(text));
  }
}

void Entry::require(const char* field, std::string& into) {
  if (!has(field)) fail(inQuotes(field) + " is missing");
  take(field, into);
}

void Entry::checkFields() {
  for (const auto& item : fields_.items()) {
    if (std::find(kFields.begin(), kFields.end(), item.key()) != kFields.end()) continue;
    std::string known;
    for (const std::string_view field : kFields) known += (known.empty() ? "" : ", ") + std::string(field);
    return fail("unknown field " + inQuotes(item.key()) + "; there are " + known);
  }
}

void Entry::readPlace(Definition& definition) {
  std::string path;
  require("path", path);
  require("name", definition.name);
  definition.place = settingPlace(path);
  OBGui::RegistryKeyInfo record;  // nobody could set what lies elsewhere
  record.keyPath = definition.place;
  record.valueName = definition.name;
  record.valueType = STRINGTYPE;
  if (const CWmError error = checkRecord(record); error.IsError()) fail(error.AsString());
  failIf(isAnyRestInside(definition.place) || isAnyRestInside(definition.name),
         "a \"*\" stands for the rest of a path's component, or of a name, so nothing follows it there");
  if (!fault_.empty()) definition.name.clear();  // what is wrong is no name to tell the setting by
}

void Entry::readFitting(Definition& definition) {
  bool isSecret = false;
  take("type", definition.type);
  take("secret", isSecret);
  failIf(definition.type != STRINGTYPE && definition.type != KEYTYPE,
         R"("type" is "STRING", or "KEY" for a sub-key; "secret": true makes a protected value)");
  if (definition.type == KEYTYPE) {
    return failIf(has("kind") || has("choices") || has("secret") || hasRange(),
                  "a sub-key has no value, so no kind, range, choices or secret");
  }
  std::string kind;
  require("kind", kind);
  definition.isNumber = kind == "number";
  failIf(!definition.isNumber && kind != "text", R"("kind" is "number" or "text")");
  take("min", definition.min);
  take("max", definition.max);
  take("choices", definition.choices, definition.isNumber);
  failIf(isSecret && (definition.isNumber || has("choices")),
         "nobody reads a secret to compare it: it is a text without choices");
  failIf(!definition.isNumber && hasRange(), R"("min" and "max" are for numbers)");
  failIf(has("choices") && hasRange(), R"("choices" say it all: "min" and "max" go)");
  failIf(definition.min > definition.max, R"("min" is greater than "max")");
  if (isSecret) definition.type = ENCRYPTEDTYPE;
}

Definition Entry::read() {
  Definition definition;
  if (!fields_.is_object()) {
    fail("has to be an object, { ... }");
    return definition;
  }
  readPlace(definition);
  checkFields();
  readFitting(definition);
  require("sentence", definition.sentence);
  failIf(definition.sentence.empty() || !isPrintable(definition.sentence),
         "\"sentence\" has to be one line of text");
  take("needsRestart", definition.needsRestart);
  return definition;
}

// "setting 3 ("nMAX" in "~/Limits")", as far as it can be told.
std::string entryText(std::size_t number, const Definition& definition) {
  std::string text = "setting " + std::to_string(number);
  if (!definition.name.empty())
    text += " (" + inQuotes(definition.name) + " in " + inQuotes(definition.place) + ')';
  return text;
}

// Of two fields of one name the parser keeps the last without a word; this finds them.
class DoubleFields {
 public:
  void see(int depth, json::parse_event_t event, const json& parsed) {
    constexpr int kEntryDepth = 2;  // below the outer object and its list
    if (event == json::parse_event_t::object_start) {
      open_[depth + 1].clear();
      if (depth == kEntryDepth) ++entries_;
    } else if (event == json::parse_event_t::key && !open_[depth].insert(parsed.get<std::string>()).second &&
               fault_.empty()) {
      const std::string where = entries_ == 0 ? "" : entryText(entries_, {}) + ": ";
      fault_ = where + inQuotes(parsed.get<std::string>()) + " stands twice";
    }
  }
  const std::string& fault() const { return fault_; }

 private:
  std::map<int, std::set<std::string>> open_;
  std::size_t entries_ = 0;
  std::string fault_;
};

// What is wrong with the text as a whole; empty when nothing is.
std::string parse(const std::string& text, json& root) {
  DoubleFields doubles;
  try {
    const auto see = [&doubles](int depth, json::parse_event_t event, const json& parsed) {
      doubles.see(depth, event, parsed);
      return true;
    };
    root = json::parse(text, see, true, true);  // comments are for those who write why
  } catch (const json::exception& failure) {
    const std::string_view said =
        failure.what();  // "[json.exception...] parse error at line 3, column 5: ..."
    return std::string(said.substr(std::min(said.find("] ") + 2, said.size())));
  }
  if (!doubles.fault().empty()) return doubles.fault();
  if (!root.is_object() || root.size() != 1 || !root.contains(kSettings) || !root[kSettings].is_array())
    return R"(it has to hold {"settings": [ ... ]} and nothing else)";
  return root[kSettings].empty() ? "it defines nothing, so nothing could be set; remove it to go without"
                                 : "";
}

}  // namespace

bool readWholeNumber(const std::string& text, std::int64_t& number) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  return fault == std::errc() && end == text.data() + text.size();
}

CWmError readDefinitionFile(const std::string& file, std::vector<Definition>& definitions) {
  definitions.clear();
  std::string text;
  CWmError error = FXFile::ReadContents(file, text, kMaxFile);
  if (error.IsError()) return error;
  json root;
  std::string fault = parse(text, root);
  if (!fault.empty()) return {kLqErrFile, file + ": " + fault};
  std::set<std::pair<std::string, std::string>> seen;
  for (const json& fields : root[kSettings]) {
    Entry entry(fields);
    definitions.push_back(entry.read());
    const Definition& last = definitions.back();
    fault = entry.fault();
    if (fault.empty() && !seen.emplace(last.place, last.name).second) fault = "is defined already";
    if (!fault.empty())
      return {kLqErrFile, file + ": " + entryText(definitions.size(), last).append(": ").append(fault)};
  }
  return {};
}
