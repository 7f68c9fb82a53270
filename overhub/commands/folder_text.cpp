#include "overhub/commands/folder_text.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include "lqregistry/PrintableText.h"
#include "lqregistry/UtcText.h"
#include "overhub/commands/time_argument.h"
#include "overhub/store/setting_place.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace folder_text {

namespace {

constexpr const char* kNumber = "number";
constexpr const char* kMember = "member";
constexpr const char* kClient = "client";
constexpr const char* kType = "type";
constexpr const char* kEquals = "=";
constexpr const char* kUntil = "until";
constexpr const char* kDelete = "delete";
constexpr const char* kDisabled = "disabled";
constexpr std::string_view kBlanks = " \t\r";

std::string quoted(std::string_view text) {
  std::string line = "\"";
  while (!text.empty()) {
    const char first = text.front();
    const std::size_t special = std::string_view("\"\\\n\r\t").find(first);
    if (special != std::string_view::npos) {
      line += '\\';
      line += "\"\\nrt"[special];
      text.remove_prefix(1);
    } else {
      text.remove_prefix(lqtext::appendPrintable(line, text));
    }
  }
  return line + '"';
}

// The time as people read it, or, where their calendar has no word for it, in seconds.
std::string timeText(std::int64_t time) {
  const std::string text = lqtext::utcText(static_cast<std::time_t>(time));
  std::int64_t read = 0;
  return !readFixedTime(text, read).IsError() && read == time ? text : std::to_string(time);
}

struct Word {
  std::string text;
  bool isQuoted = false;

  bool is(const char* word) const { return !isQuoted && text == word; }
};

// What stands between quotes, from behind the first on; what is wrong with it, or nothing.
std::string readQuoted(std::string_view& rest, std::string& text) {
  while (!rest.empty() && rest.front() != '"') {
    if (rest.front() != '\\') {
      text += rest.front();
      rest.remove_prefix(1);
      continue;
    }
    const std::size_t special =
        rest.size() < 2 ? std::string_view::npos : std::string_view("\"\\nrt").find(rest[1]);
    if (special != std::string_view::npos) {
      text += "\"\\\n\r\t"[special];
      rest.remove_prefix(2);
    } else if (rest.size() >= 4 && rest[1] == 'x' && lqtext::hexValue(rest[2]) >= 0 &&
               lqtext::hexValue(rest[3]) >= 0) {
      text += static_cast<char>(16 * lqtext::hexValue(rest[2]) + lqtext::hexValue(rest[3]));
      rest.remove_prefix(4);
    } else {
      return "a backslash is followed by \", \\, n, r, t, or x and two hexadecimal digits";
    }
  }
  if (rest.empty()) return "a quote is not closed";
  rest.remove_prefix(1);
  return {};
}

std::string splitWords(std::string_view rest, std::vector<Word>& words) {
  while (true) {
    rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
    if (rest.empty() || (words.empty() && rest.front() == '#')) return {};
    Word word;
    word.isQuoted = rest.front() == '"';
    if (word.isQuoted) {
      rest.remove_prefix(1);
      if (std::string fault = readQuoted(rest, word.text); !fault.empty()) return fault;
      if (!rest.empty() && kBlanks.find(rest.front()) == std::string_view::npos)
        return "a blank is missing behind a closing quote";
    } else {
      word.text = rest.substr(0, rest.find_first_of(kBlanks));
      if (word.text.find('"') != std::string::npos) return "a blank is missing before a quote";
      rest.remove_prefix(word.text.size());
    }
    words.push_back(std::move(word));
  }
}

bool readNumber(const Word& word, std::int64_t& number) {
  const std::string& text = word.text;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  return !word.isQuoted && fault == std::errc() && end == text.data() + text.size();
}

// A line of a word and a name, or a number, and of what nobody acts on behind it.
std::string readEntry(const std::vector<Word>& words, Line& line) {
  const bool isNumber = words[0].is(kNumber);
  line.kind = isNumber ? Kind::kNumber : words[0].is(kMember) ? Kind::kMember : Kind::kClient;
  if (isNumber) {
    if (words.size() == 2 && readNumber(words[1], line.number)) return {};
    return "\"number\" is followed by a whole number, and nothing else";
  }
  const bool isLong = line.kind != Kind::kClient && words.size() != 2;
  if (words.size() < 2 || !words[1].isQuoted || words[1].text.empty() || isLong)
    return "\"" + words[0].text + "\" is followed by a name in quotes";
  line.name = words[1].text;
  return {};
}

std::string readUntil(const Word& word, std::int64_t& expires) {
  // So much from now would be another time whenever the folder is applied.
  const bool isTime = !word.isQuoted && !readFixedTime(word.text, expires).IsError();
  return isTime && expires > 0 ? "" : "\"until\" is followed by a time in UTC such as 2027-01-01T06:00:00Z";
}

struct Words {
  const std::vector<Word>& all;
  std::size_t at;

  bool take(const char* word) {
    if (at == all.size() || !all[at].is(word)) return false;
    ++at;
    return true;
  }
  const Word* next() { return at == all.size() ? nullptr : &all[at++]; }
};

// What is behind path and name, in its one order.
std::string readRest(Words words, Line& line, bool& hasValue) {
  Setting& setting = line.setting;
  setting.type.clear();
  if (words.take(kType)) {
    const Word* const type = words.next();
    if (type == nullptr || !type->isQuoted) return "\"type\" is followed by a type word in quotes";
    setting.type = type->text;
  }
  hasValue = words.take(kEquals);
  if (hasValue) {
    const Word* const value = words.next();
    line.isHidden = value != nullptr && value->is(kHiddenSecret);
    if (value == nullptr || (!value->isQuoted && !line.isHidden))
      return std::string("\"=\" is followed by a value in quotes, or by ") + kHiddenSecret + " for a secret";
    if (!line.isHidden) setting.value = value->text;
  }
  if (words.take(kUntil)) {
    const Word* const time = words.next();
    if (std::string fault = readUntil(time == nullptr ? Word() : *time, setting.expires); !fault.empty())
      return fault;
  }
  setting.isRemoval = words.take(kDelete);
  setting.isDisabled = words.take(kDisabled);
  const Word* const odd = words.next();
  return odd == nullptr ? ""
                        : "\"" + odd->text +
                              "\" is not understood here; behind path and name come: type \"WORD\", = "
                              "\"VALUE\", until TIME, delete, disabled, in this order";
}

std::string readSetting(const std::vector<Word>& words, Line& line) {
  line.kind = Kind::kSetting;
  if (words.size() < 2 || !words[1].isQuoted)
    return "a setting begins with a path and a name, both in quotes";
  Setting& setting = line.setting;
  bool hasValue = false;
  if (std::string fault = readRest({words, 2}, line, hasValue); !fault.empty()) return fault;
  if (setting.type.empty()) setting.type = line.isHidden ? ENCRYPTEDTYPE : STRINGTYPE;
  const bool isKey = setting.type == KEYTYPE;
  setting.path = words[0].text;
  setting.identity = {settingPlace(setting.path), words[1].text, isKey};
  if (!hasValue && !setting.isRemoval && !isKey) return "a value is missing: = \"VALUE\"";
  if (hasValue && !line.isHidden && isHidden(setting))
    return "a secret is set with \"overhub set --secret\", and stands here as ********";
  return {};
}

}  // namespace

bool isHidden(const Setting& setting) {
  return setting.isSecret() || strcasecmp(setting.type.c_str(), ENCRYPTEDTYPE) == 0 ||
         isSecretValue(setting.identity.name, setting.value);
}

std::string settingLine(const Setting& setting) {
  const bool hasValue =
      !setting.value.empty() || setting.isSecret() || (!setting.isRemoval && !setting.identity.isKey);
  const bool isSecret = hasValue && isHidden(setting);
  std::string line = quoted(setting.path) + " " + quoted(setting.identity.name);
  if (setting.type != (isSecret ? ENCRYPTEDTYPE : STRINGTYPE))
    line += std::string(" ") + kType + " " + quoted(setting.type);
  if (hasValue) line += std::string(" ") + kEquals + " " + (isSecret ? kHiddenSecret : quoted(setting.value));
  if (setting.expires != 0) line += std::string(" ") + kUntil + " " + timeText(setting.expires);
  if (setting.isRemoval) line += std::string(" ") + kDelete;
  if (setting.isDisabled) line += std::string(" ") + kDisabled;
  return line + "\n";
}

std::string numberLine(std::int64_t number) {
  return std::string(kNumber) + " " + std::to_string(number) + "\n";
}

std::string memberLine(const std::string& pattern) {
  return std::string(kMember) + " " + quoted(pattern) + "\n";
}

std::string clientLine(const Client& client) {
  const std::string host = client.host.empty() ? "" : " host " + quoted(client.host);
  return std::string(kClient) + " " + quoted(client.name) + " id " + std::to_string(client.id) + host + "\n";
}

std::string readLine(std::string_view text, Line& line) {
  line = Line();
  std::vector<Word> words;
  if (std::string fault = splitWords(text, words); !fault.empty()) return fault;
  if (words.empty()) return {};
  if (words[0].isQuoted) return readSetting(words, line);
  if (words[0].is(kNumber) || words[0].is(kMember) || words[0].is(kClient)) return readEntry(words, line);
  return "\"" + words[0].text + "\" is not understood; a setting begins with its path in quotes";
}

}  // namespace folder_text
