// `lqhost explain`: all that this machine knows of one value: what it is and should be, who set it and why,
// what modules make of it. Looks only.
#include <algorithm>
#include <ctime>
#include <map>
#include <sstream>

#include "common/terminal_text.h"
#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/commands/labelled_line.h"
#include "lqhost/pass/batch_outcome.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/pass/registry_writes.h"
#include "lqhost/report/report_file.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqhost/service/ask_resident.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqVerdicts.h"
#include "lqregistry/UtcText.h"
#include "records/expiry.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

namespace {

constexpr const char* kFooter =
    R"(PATH and NAME as the server has them; quote "~", or the shell puts your home directory in its place. Asks nobody but
the resident host of this machine: who set a value is known as far as the server has told it in answer to a report.

Examples:
  lqhost explain Machine/Settings nTraceLevel
  lqhost explain '~/Limits' nMAX

Exit code 0: the value is as it should be; 6: it is not; 1: what it should be, or what modules have registered, cannot
be found out; 3: not joined, or the registry cannot be used.)";

struct Place {
  std::string path;  // normalised
  std::string name;

  std::string id() const { return placeOf(path, name); }
  std::string text() const { return path + " " + name; }
};

using programs::escapedForTerminal;

std::string quoted(const std::string& value) {
  return "\"" + escapedForTerminal(value) + "\"";
}

// What the cache has for the place, ready to be compared; nothing when it has none.
std::optional<OBGui::RegistryKeyInfo> wantedRecord(const Place& place, OBGui::KeyList keys) {
  markExpired(keys);
  std::optional<OBGui::RegistryKeyInfo> found;
  for (const std::size_t position : effectiveRecords(keys))
    if (placeOf(keys[position].keyPath, keys[position].valueName) == place.id()) found = keys[position];
  return found;
}

std::string nowText(const OBGui::RegistryKeyInfo& key, const CurrentValue& now) {
  if (!now) return "absent";
  if (isSecretValue(key.valueName.get(), *now)) return quoted(kHiddenSecret);
  return quoted(shownValue(key, *now));
}

// When the companion of the value ends it; empty when there is none.
std::string expiryText(const Place& place, const OBGui::KeyList& keys) {
  for (const OBGui::RegistryKeyInfo& key : keys) {
    if (placeOf(key.keyPath, key.valueName) != placeOf(place.path, place.name + std::string(_UNTIL)))
      continue;
    const std::int64_t time = std::strtoll(key.value->c_str(), nullptr, 10);
    return (time < std::time(nullptr) ? "; ended " : "; ends ") + lqtext::utcText(time);
  }
  return {};
}

// Adds what the registry holds, and what the cache says that it should.
int addValue(std::string& text, const Place& place) {
  CachedSettings cached;
  const CWmError error = readCachedSettings(cached);
  std::optional<OBGui::RegistryKeyInfo> wanted;
  if (!error.IsError()) wanted = wantedRecord(place, cached.keys);
  OBGui::RegistryKeyInfo key;
  key.keyPath = place.path;
  key.valueName = place.name;
  key.valueType = std::string(STRINGTYPE);
  if (wanted) key = *wanted;
  const CurrentValue now = currentValues({key}).front();
  addLine(text, "value", nowText(key, now));
  if (error.IsError()) {
    addLine(text, "wanted", "not known: " + escapedForTerminal(error.AsString()));
    return kExitFailed;
  }
  if (!wanted) {
    addLine(text, "wanted", "nothing; the server sets nothing here");
    return kExitOk;
  }
  const bool isGood = isAsWanted(*wanted, now);
  const std::string what =
      isToBeRemoved(*wanted) ? "absent" : quoted(shownValue(*wanted, wantedValue(*wanted)));
  addLine(text, "wanted",
          what + expiryText(place, cached.keys) +
              (isGood ? "" : "; the next refresh or synchronisation sets it"));
  return isGood ? kExitOk : kExitDrift;
}

// Who set it, as the server has told.
void addOrigin(std::string& text, const Place& place, const HostReport::Report& report) {
  const std::optional<HostReport::Answer> told = readOrigins();
  if (!told) return addLine(text, "set by", "not known; the server has not told it");
  const auto origin =
      std::find_if(told->origins->begin(), told->origins->end(), [&place](const HostReport::Origin& each) {
        return placeOf(each.keyPath, each.valueName) == place.id();
      });
  const std::string asOf = report.originsOf.get() == report.digest.get() ? "" : ", as of an earlier batch";
  if (origin == told->origins->end())
    return addLine(text, "set by", "nobody on the server, as far as it has told" + asOf);
  std::string line = "revision " + std::to_string(origin->revision) + " for " + origin->scope.get();
  for (const HostReport::Revision& revision : told->revisions.get()) {
    if (revision.number != origin->revision) continue;
    line += ", " + lqtext::utcText(revision.time) + ", by " + revision.who.get();
    if (!revision.why->empty()) line += ": " + revision.why.get();
  }
  addLine(text, "set by", escapedForTerminal(line + asOf));
}

template <class List>
auto about(const List& list, const Place& place) {
  std::vector<typename List::value_type> found;
  for (const auto& each : list)
    if (placeOf(each.keyPath, each.valueName) == place.id()) found.push_back(each);
  return found;
}

// Adds what the newest report says of it.
void addReported(std::string& text, const Place& place, const HostReport::Report& report) {
  for (const HostReport::Problem& problem : about(report.problems.get(), place)) {
    addLine(text, "problem",
            escapedForTerminal(problem.kind.get() + ": " + problem.reason.get()) + ", since " +
                lqtext::utcText(problem.since));
  }
  const auto drifts = about(report.drifts.get(), place);
  for (const HostReport::Drift& drift : drifts) {
    const auto value = [&drift](const auto& some) {
      if (drift.isSecret == 1) return quoted(kHiddenSecret);
      return some.isSet() ? quoted(some.get()) : std::string("absent");
    };
    addLine(text, "drift",
            "found " + value(drift.before) + " and corrected to " + value(drift.after) + " " +
                lqtext::utcText(drift.time));
  }
  if (drifts.empty()) addLine(text, "drift", "none since the server was told of it last");
  const auto verdicts = about(report.verdicts.get(), place);
  for (const HostReport::Verdict& verdict : verdicts) {
    std::string line = verdict.module.get() + ": " + verdict.verdict.get();
    if (!verdict.sentence->empty()) line += ", " + verdict.sentence.get();
    addLine(text, "verdict", escapedForTerminal(line) + ", since " + lqtext::utcText(verdict.since));
  }
  if (verdicts.empty()) addLine(text, "verdict", "no module has said anything of it");
}

// Adds who hears of it, which the resident host knows.
int addRegistered(std::string& text, const Place& place) {
  const std::optional<CommandResult> answer = answerOfResident(kAskRegistered);
  if (!answer) {
    addLine(text, "callbacks", "not known; no resident host is running");
    return kExitOk;
  }
  if (answer->exitCode != kExitOk) {
    addLine(text, "callbacks", "not known: " + answer->err.substr(0, answer->err.find('\n')));
    return kExitFailed;
  }
  const std::string start = escapedForTerminal(place.text()) + ": ";
  std::istringstream lines(answer->out);
  std::string registered = "none is registered";
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(start)) registered = line.substr(start.size());
  addLine(text, "callbacks", registered);
  return kExitOk;
}

int explain(const Place& place) {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  CommandResult result;
  result.out = escapedForTerminal(place.text()) + "\n";
  result.exitCode = addValue(result.out, place);
  const HostReport::Report report = readKeptReport().report;
  addOrigin(result.out, place, report);
  addReported(result.out, place, report);
  if (hasToBeConfirmed(place.path, place.name))
    addLine(result.out, "changes", escapedForTerminal(memoryText(memoryState())));
  result.exitCode = worseOf(result.exitCode, addRegistered(result.out, place));
  return print(result);
}

}  // namespace

CommandResult whatIsRegistered() {
  std::map<std::string, std::string> lines;
  const auto add = [&lines](const std::string& path, const std::string& name, const std::string& what) {
    std::string& line = lines[Place{normalisedKeyPath(path), name}.text()];
    line += (line.empty() ? "" : ", ") + what;
  };
  // Modules register before passes begin; the map is read like by any pass.
  for (const auto& [place, callback] : LqRegistryChangeMgr::callBackMaps)
    add(place.first, place.second, "a change callback");
  for (const LqVerdicts::Registration& each : LqVerdicts::Registered()) {
    add(each.keyPath, each.valueName,
        "a verdict of " + each.module +
            (each.hangsSince == 0 ? ""
                                  : ", which has not answered since " + lqtext::utcText(each.hangsSince)));
  }
  CommandResult result;
  for (const auto& [place, what] : lines)
    result.out.append(escapedForTerminal(place)).append(": ").append(escapedForTerminal(what)).append("\n");
  return result;
}

void addExplain(CommandLine& line) {
  const auto place = std::make_shared<Place>();
  line.add("explain", "Say what a value is and should be, who set it and why, and what modules make of it",
           [place] {
             place->path = normalisedKeyPath(place->path);
             return explain(*place);
           })
      .required("PATH", place->path, "The key's path")
      .required("NAME", place->name, "The value's name")
      .footer(kFooter);
}

}  // namespace host
