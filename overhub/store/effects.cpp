#include "overhub/store/effects.h"

#include <algorithm>
#include <limits>

#include "common/machine_identity.h"
#include "overhub/store/machine_batch.h"
#include "overhub/store/scope_finder.h"

namespace {

EffectiveSettings merged(const std::vector<std::string>& scopes, const std::set<std::string>& names,
                         const TouchedSettings& settings, std::int64_t moment) {
  std::vector<std::vector<Setting>> said;
  for (const std::string& scope : scopes) {
    std::vector<Setting>& here = said.emplace_back();
    for (const std::string& name : names)
      if (const auto found = settings.find({scope, name}); found != settings.end())
        here.insert(here.end(), found->second.begin(), found->second.end());
  }
  return effectiveSettings(said, moment);
}

struct Difference {
  const Setting* before;  // null: nothing
  const Setting* after;
};

std::map<Identity, Difference> differences(const EffectiveSettings& before, const EffectiveSettings& after) {
  std::map<Identity, Difference> found;
  for (const auto& [identity, was] : before) {
    const auto is = after.find(identity);
    if (is == after.end()) {
      found[identity] = {&was.setting, nullptr};
    } else if (!was.setting.saysAs(is->second.setting)) {
      found[identity] = {&was.setting, &is->second.setting};
    }
  }
  for (const auto& [identity, is] : after)
    if (!before.contains(identity)) found[identity] = {nullptr, &is.setting};
  return found;
}

// Machines for which a change does the same: what they hear of these values comes from the same scopes.
struct Kind {
  bool isNew = false;  // machines that come with the change; they had nothing
  std::vector<std::string> before;
  std::vector<std::string> after;

  auto operator<=>(const Kind&) const = default;  // NOLINT(modernize-use-nullptr): the check takes it for a 0
};

std::vector<std::string> speaking(const std::vector<std::string>& scopes,
                                  const std::set<std::string>& speakers) {
  std::vector<std::string> heard;
  std::copy_if(scopes.begin(), scopes.end(), std::back_inserter(heard),
               [&speakers](const std::string& scope) { return speakers.contains(scope); });
  return heard;
}

std::set<std::string> speakersOf(const TouchedSettings& settings) {
  std::set<std::string> scopes;
  for (const auto& [place, said] : settings)
    if (!said.empty()) scopes.insert(place.first);
  return scopes;
}

void noteWayBack(const Setting& setting, const std::vector<const Client*>& machines, Effects& effects) {
  if (!programs::isWayBack(recordOf(setting))) return;
  effects.wayBackValue = "\"" + setting.identity.name + "\" in \"" + setting.path + "\"";
  for (const Client* const client : machines) effects.wayBack.push_back(client->name);
}

void add(const Identity& identity, const Difference& difference, const std::vector<const Client*>& machines,
         std::map<std::tuple<Identity, std::string, std::string>, std::int64_t>& values, Effects& effects) {
  values[{identity, shownInFull(difference.before), shownInFull(difference.after)}] +=
      static_cast<std::int64_t>(machines.size());
  for (const Setting* const setting : {difference.before, difference.after})
    if (setting != nullptr) noteWayBack(*setting, machines, effects);
}

// Why what these scopes say of a name could not be handed out, now or after one of the ends that are to come:
// with it something farther counts. Nothing when it always could.
std::string conflictOf(const std::vector<std::string>& scopes, const std::string& name,
                       const TouchedSettings& settings, std::int64_t now) {
  std::set<std::int64_t> moments;
  for (const std::string& scope : scopes) {
    const auto said = settings.find({scope, name});
    if (said == settings.end()) continue;
    for (const Setting& setting : said->second) {
      if (setting.expires < now) continue;
      moments.insert(now);
      // The last moment that there is has none after it.
      if (setting.expires != std::numeric_limits<std::int64_t>::max()) moments.insert(setting.expires + 1);
    }
  }
  for (const std::int64_t moment : moments)
    if (std::string why = expiryConflict(merged(scopes, {name}, settings, moment)); !why.empty()) return why;
  return {};
}

void sortUnique(std::vector<std::string>& names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
}

}  // namespace

Effects weigh(const std::set<std::string>& names, const TouchedSettings& before, const TouchedSettings& after,
              const Fleet& fleetBefore, const Fleet& fleetAfter, std::int64_t now) {
  Effects effects;
  const ScopeFinder finderBefore(fleetBefore);
  const ScopeFinder finderAfter(fleetAfter);
  const std::set<std::string> speakersBefore = speakersOf(before);
  const std::set<std::string> speakersAfter = speakersOf(after);
  std::set<std::int64_t> known;
  for (const Client& client : fleetBefore.clients) known.insert(client.id);
  std::map<Kind, std::vector<const Client*>> kinds;
  for (const Client& client : fleetAfter.clients) {
    const bool isNew = !known.contains(client.id);
    const std::vector<std::string> scopesBefore =
        isNew ? std::vector<std::string>() : finderBefore.scopesOf(client);
    const std::vector<std::string> scopesAfter = finderAfter.scopesOf(client);
    if (!isNew && scopesBefore != scopesAfter) effects.newScopesFor.push_back(client.id);
    kinds[{isNew, speaking(scopesBefore, speakersBefore), speaking(scopesAfter, speakersAfter)}].push_back(
        &client);
  }

  std::map<std::tuple<Identity, std::string, std::string>, std::int64_t> values;
  for (const auto& [kind, machines] : kinds) {
    for (const std::string& name : names) {
      if (!effects.conflict.empty()) break;
      const std::string conflict = conflictOf(kind.after, name, after, now);
      // One that is there already is nothing that this change brings.
      if (!conflict.empty() && (kind.isNew || conflictOf(kind.before, name, before, now).empty()))
        effects.conflict = "for " + machines.front()->name + ": " + conflict;
    }
    const EffectiveSettings is = merged(kind.after, names, after, now);
    if (std::string doubled = doubledValue(is);
        !doubled.empty() && (kind.isNew || doubledValue(merged(kind.before, names, before, now)).empty()))
      effects.doubled = "for " + machines.front()->name + ": " + doubled;
    if (kind.isNew) {
      for (const auto& [identity, effective] : is) noteWayBack(effective.setting, machines, effects);
      continue;
    }
    const EffectiveSettings was = merged(kind.before, names, before, now);
    const auto found = differences(was, is);
    if (found.empty()) continue;
    for (const auto& [identity, difference] : found) add(identity, difference, machines, values, effects);
    for (const Client* const client : machines) effects.machines.push_back(client->name);
  }
  for (const auto& [key, machines] : values)
    effects.values.push_back({std::get<0>(key), std::get<1>(key), std::get<2>(key), machines});
  sortUnique(effects.machines);
  sortUnique(effects.wayBack);
  return effects;
}
