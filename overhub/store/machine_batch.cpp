#include "overhub/store/machine_batch.h"

#include <algorithm>
#include <utility>

#include "common/machine_identity.h"
#include "lqregistry/LqSettings.h"
#include "records/record_rules.h"

namespace {

// A key and names that no machine has a value under.
constexpr const char* kNoSuchKey = "~/Overhub/Withdrawn";
constexpr const char* kNoSuchName = "nothing";

bool isOver(const Setting& setting, std::int64_t now) {
  return setting.expires != 0 && setting.expires < now;
}

OBGui::RegistryKeyInfo removalOf(const std::string& path, const std::string& name) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = path;
  record.valueName = name;
  record.valueType = std::string(STRINGTYPE);
  record.deleteFlag = 1;
  record.enabledFlag = 1;
  return record;
}

Setting asWithdrawn(const Identity& identity, const std::string& path) {
  Setting setting;
  setting.identity = identity;
  setting.path = path;
  return setting;
}

// Takes it out of the client's cache and leaves what the machine has alone.
void forget(const Identity& identity, const std::string& path, OBGui::KeyList& batch) {
  batch.push_back(removalOf(subKeyPath(path, identity.name), kNoSuchName));
}

void removeValue(const Identity& identity, const std::string& path, bool withExpiry, OBGui::KeyList& batch) {
  batch.push_back(removalOf(path, identity.name));
  if (withExpiry) batch.push_back(expiryRecordOf(asWithdrawn(identity, path), true));
}

void addRemovals(const EffectiveSettings& settings, const HeldSettings& held, OBGui::KeyList& batch) {
  for (const auto& [identity, before] : held) {
    const auto now = settings.find(identity);
    if (now == settings.end() && (identity.isKey || !before.wasLive || before.isLeft)) {
      // A sub-key stays, with what is in it; and what was only switched off may be somebody's by now.
      forget(identity, before.path, batch);
    } else if (now == settings.end()) {
      removeValue(identity, before.path, before.hasExpiry, batch);
    } else if (before.hasExpiry && now->second.setting.expires == 0 && !identity.isKey) {
      batch.push_back(expiryRecordOf(asWithdrawn(identity, before.path), true));
    }
  }
  for (const auto& [identity, effective] : settings) {
    if (effective.isExpired) {
      removeValue(identity, effective.setting.path, true, batch);
    } else if (!effective.setting.isLive()) {
      batch.push_back(recordOf(effective.setting));
      if (effective.setting.expires != 0) batch.push_back(expiryRecordOf(effective.setting, true));
    }
  }
}

}  // namespace

EffectiveSettings effectiveSettings(const std::vector<std::vector<Setting>>& scopes, std::int64_t now) {
  EffectiveSettings merged;
  for (const std::vector<Setting>& scope : scopes) {
    for (const Setting& setting : scope) {
      const bool isExpired = isOver(setting, now);
      const auto [place, isNew] = merged.try_emplace(setting.identity, Effective{setting, isExpired});
      if (!isNew && (!isExpired || place->second.isExpired)) place->second = {setting, isExpired};
    }
  }
  return merged;
}

std::string expiryConflict(const EffectiveSettings& settings) {
  std::map<std::string, const Setting*> firstOfName;
  for (const auto& [identity, effective] : settings) {
    if (effective.isExpired || !effective.setting.isLive()) continue;
    const auto [other, isFirst] = firstOfName.try_emplace(identity.name, &effective.setting);
    if (isFirst || other->second->expires == effective.setting.expires) continue;
    const Setting& here = *other->second;
    const Setting& there = effective.setting;
    const auto text = [](const Setting& setting) {
      return "\"" + setting.path + "\" " +
             (setting.expires == 0 ? std::string("has no end")
                                   : "ends at " + std::to_string(setting.expires));
    };
    return "clients end a value by its name in all keys at once, and \"" + identity.name + "\" in " +
           text(here) + " while that in " + text(there) + "; give both the same --until, or none";
  }
  return {};
}

std::string doubledValue(const EffectiveSettings& settings) {
  const std::string instances = std::string(lqsettings::kInstancesKey) + '/';
  const auto isSent = [](const Effective& effective) {
    return !effective.isExpired && effective.setting.isLive();
  };
  for (const auto& [identity, effective] : settings) {
    if (!isSent(effective) || !identity.place.starts_with(instances)) continue;
    const std::size_t end = std::min(identity.place.find('/', instances.size()), identity.place.size());
    Identity own = identity;
    own.place = lqsettings::kInstanceRoot + identity.place.substr(end);
    const auto twin = settings.find(own);
    if (twin == settings.end() || !isSent(twin->second)) continue;
    return "\"" + identity.name + "\" in \"" + identity.place + "\" and in \"" + own.place +
           "\" are one value on a machine whose instance is \"" +
           identity.place.substr(instances.size(), end - instances.size()) + "\"";
  }
  return {};
}

void addHeld(const Setting& setting, std::int64_t doubted, HeldSettings& held) {
  if (setting.isRemoval) return;
  const bool isLeft = setting.validTo <= doubted && programs::isWayBack(recordOf(setting));
  const auto [place, isFirst] = held.try_emplace(setting.identity);
  MayHold& entry = place->second;
  entry.isLeft = isLeft && (isFirst || entry.isLeft);
  entry.path = setting.path;
  entry.wasLive = entry.wasLive || setting.isLive();
  entry.hasExpiry = entry.hasExpiry || (setting.isLive() && setting.expires != 0);
}

OBGui::KeyList batchOf(const EffectiveSettings& settings, const HeldSettings& held, std::size_t atLeast) {
  OBGui::KeyList batch;
  addRemovals(settings, held, batch);
  std::size_t live = 0;
  for (const auto& [identity, effective] : settings)
    if (!effective.isExpired && effective.setting.isLive()) live += effective.setting.expires == 0 ? 1 : 2;
  for (std::size_t n = 1; batch.size() + live < atLeast; ++n)
    batch.push_back(removalOf(kNoSuchKey, kNoSuchName + std::to_string(n)));
  for (const auto& [identity, effective] : settings) {
    if (effective.isExpired || !effective.setting.isLive()) continue;
    batch.push_back(recordOf(effective.setting));
    if (effective.setting.expires != 0) batch.push_back(expiryRecordOf(effective.setting, false));
  }
  return batch;
}
