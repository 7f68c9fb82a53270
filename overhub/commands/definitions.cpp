#include "overhub/commands/definitions.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <limits>
#include <numeric>
#include <string_view>

#include "overhub/store/setting_place.h"
#include "records/expiry.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFileName = "definitions.json";
constexpr std::size_t kMaxSuggestions = 3;

std::string inQuotes(const std::string& text) {
  return '"' + text + '"';
}

std::string inQuotes(const std::string& place, const std::string& name) {
  return inQuotes(name) + " in " + inQuotes(place);
}

// "a, b or c".
std::string oneOf(const std::vector<std::string>& texts) {
  std::string all;
  for (std::size_t i = 0; i < texts.size(); ++i)
    all += (i == 0 ? "" : i + 1 == texts.size() ? " or " : ", ") + texts[i];
  return all;
}

// --- which definition is meant
// ------------------------------------------------------------------------------

bool fits(std::string_view pattern, std::string_view text) {
  const std::size_t any = pattern.find(kAnyRest);
  if (any == std::string_view::npos) return pattern == text;
  if (!text.starts_with(pattern.substr(0, any))) return false;
  text.remove_prefix(any);
  const std::size_t rest = std::min(text.find('/'), text.size());
  return rest > 0 && fits(pattern.substr(any + 1), text.substr(rest));
}

// The setting that says when this one ends; its name is this one's and _UNTIL.
Definition endOf(const std::string& name, bool needsRestart) {
  Definition end;
  end.isNumber = true;
  end.min = 0;
  end.sentence = "When " + inQuotes(name) + " ends, in seconds since 1970";
  end.needsRestart = needsRestart;
  return end;
}

// --- what may be meant
// --------------------------------------------------------------------------------------

int lowered(char letter) {
  return std::tolower(static_cast<unsigned char>(letter));
}

// How many characters have to come, go or change, in any letter case; what a "*" stands for is free.
std::size_t editDistance(std::string_view pattern, std::string_view text) {
  std::vector<std::size_t> row(text.size() +
                               1);  // from what was seen of the pattern to each part of the text
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (const char wanted : pattern) {
    const std::size_t gone = wanted == kAnyRest ? 0 : 1;
    std::size_t before = row[0];
    row[0] += gone;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const bool isFree = wanted == kAnyRest && text[i] != '/';
      const std::size_t changed = before + (isFree || lowered(wanted) == lowered(text[i]) ? 0 : 1);
      before = row[i + 1];
      row[i + 1] = std::min({changed, before + gone, row[i] + (isFree ? 0 : 1)});
    }
  }
  return row.back();
}

// Beyond a quarter of a text it is another word and no mistake in this one.
bool isNear(std::size_t distance, const std::string& text) {
  return distance <= 1 + text.size() / 4;
}

std::string suggestions(const std::vector<Definition>& settings, const std::string& place,
                        const std::string& name) {
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const Definition& setting : settings) {
    const std::size_t toPlace = editDistance(setting.place, place);
    const std::size_t toName = editDistance(setting.name, name);
    const bool isElsewhere = strcasecmp(setting.name.c_str(), name.c_str()) == 0;
    if (isElsewhere || (isNear(toPlace, place) && isNear(toName, name)))
      near.emplace_back(toPlace + toName, inQuotes(setting.place, setting.name));
  }
  std::sort(near.begin(), near.end());
  near.resize(std::min(near.size(), kMaxSuggestions));
  std::vector<std::string> texts;
  texts.reserve(near.size());
  for (auto& [distance, text] : near) texts.push_back(std::move(text));
  return texts.empty() ? "" : "; did you mean " + oneOf(texts) + '?';
}

// --- what fits
// ----------------------------------------------------------------------------------------------

std::string fittingText(const Definition& setting) {
  using Limits = std::numeric_limits<std::int64_t>;
  if (!setting.choices.empty()) {
    std::vector<std::string> choices = setting.choices;
    if (!setting.isNumber)
      for (std::string& choice : choices) choice = inQuotes(choice);
    return oneOf(choices);
  }
  std::string text = "a whole number";
  const bool hasMin = setting.min != Limits::min();
  const bool hasMax = setting.max != Limits::max();
  if (hasMin) text += " from " + std::to_string(setting.min) + (hasMax ? "" : " on");
  if (hasMax) text += (hasMin ? " to " : " up to ") + std::to_string(setting.max);
  return text;
}

bool isFitting(const Definition& setting, const std::string& value) {
  std::int64_t number = 0;
  if (setting.isNumber && !readWholeNumber(value, number)) return false;
  if (setting.choices.empty()) return !setting.isNumber || (setting.min <= number && number <= setting.max);
  return std::find(setting.choices.begin(), setting.choices.end(),
                   setting.isNumber ? std::to_string(number) : value) != setting.choices.end();
}

const char* wayToSet(const std::string& type) {
  if (type == KEYTYPE) return "is a sub-key: set it with --type KEY";
  if (type == ENCRYPTEDTYPE) return "is a secret: set it with --secret, which reads it from standard input";
  return "is an ordinary value: set it without --type and --secret";
}

}  // namespace

CWmError Definitions::load(const std::string& file) {
  std::vector<Definition> settings;
  CWmError error = readDefinitionFile(file, settings);
  if (error.IsError()) return error;
  file_ = file;
  settings_ = std::move(settings);
  exact_.clear();
  for (std::size_t i = 0; i < settings_.size(); ++i)
    exact_.emplace(std::pair(settings_[i].place, settings_[i].name), i);
  return {};
}

CWmError Definitions::check(const OBGui::RegistryKeyInfo& record) const {
  if (settings_.empty() || isToBeRemoved(record)) return {};
  const std::string where = inQuotes(settingPlace(record.keyPath.get()), record.valueName);
  const std::optional<Definition> setting = find(record.keyPath, record.valueName);
  if (!setting) return {kLqErrArgument, unknown(record)};
  if (record.valueType.get() != setting->type) return {kLqErrArgument, where + ' ' + wayToSet(setting->type)};
  if (setting->type != STRINGTYPE || isFitting(*setting, record.value)) return {};
  return {kLqErrArgument, inQuotes(record.value) + " does not fit " + where + " (" + setting->sentence +
                              "), which takes " + fittingText(*setting)};
}

std::string Definitions::doubtAbout(const OBGui::RegistryKeyInfo& record) const {
  const bool isKnown = settings_.empty() || !isToBeRemoved(record) ||
                       find(record.keyPath, record.valueName).has_value() || isPartOfSomething(record);
  return isKnown ? std::string() : unknown(record);
}

std::string Definitions::sentenceOf(const std::string& path, const std::string& name) const {
  const std::optional<Definition> setting = find(path, name);
  return setting ? setting->sentence : std::string();
}

bool Definitions::needsRestart(const std::string& path, const std::string& name) const {
  const std::optional<Definition> setting = find(path, name);
  return setting && setting->needsRestart;
}

// The one that names it in full, else the first with a "*" that stands for it, else the end of another one.
std::optional<Definition> Definitions::find(const std::string& path, const std::string& name) const {
  const std::string place = settingPlace(path);
  if (const auto exact = exact_.find({place, name}); exact != exact_.end()) return settings_[exact->second];
  const auto found = std::find_if(settings_.begin(), settings_.end(), [&](const Definition& setting) {
    return fits(setting.place, place) && fits(setting.name, name);
  });
  if (found != settings_.end()) return *found;
  if (!name.ends_with(_UNTIL)) return std::nullopt;
  const std::string ending = name.substr(0, name.size() - _UNTIL.size());
  const std::optional<Definition> ended = find(path, ending);
  return ended ? std::optional(endOf(ending, ended->needsRestart)) : std::nullopt;
}

// Whether settings lie in the sub-key that the record names.
bool Definitions::isPartOfSomething(const OBGui::RegistryKeyInfo& key) const {
  if (!isKey(key)) return false;
  const std::string place = settingPlace(keyOf(key));
  return std::any_of(settings_.begin(), settings_.end(), [&place](const Definition& setting) {
    return fits(setting.place, place) || setting.place.starts_with(place + '/');
  });
}

std::string Definitions::unknown(const OBGui::RegistryKeyInfo& record) const {
  const std::string place = settingPlace(record.keyPath.get());
  return inQuotes(place, record.valueName) + " is not defined in " + file_ +
         suggestions(settings_, place, record.valueName);
}

void describeDefinitions(programs::CommandLine::Options options, std::string& file) {
  options
      .option("--definitions FILE", file,
              "Which settings there are and what fits each; otherwise DIR/definitions.json, if it is there")
      .fromEnvironment("OVERHUB_DEFINITIONS");
}

CWmError loadDefinitions(const std::string& named, const std::string& dataDirectory,
                         Definitions& definitions) {
  if (!named.empty()) return definitions.load(named);
  const std::string file = std::filesystem::path(dataDirectory) / kFileName;
  std::error_code fault;  // whatever cannot be looked at is said by who reads it
  const bool isAbsent =
      std::filesystem::symlink_status(file, fault).type() == std::filesystem::file_type::not_found;
  return isAbsent ? CWmError() : definitions.load(file);
}
