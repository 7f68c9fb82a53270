#include "lqhost/rollback/prediction.h"

#include <algorithm>
#include <list>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "common/machine_identity.h"
#include "lqhost/pass/batch_outcome.h"
#include "lqhost/rollback/place_value.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "records/expiry.h"
#include "records/record_conversion.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

namespace {

// What makes a sub-key of a record exist, besides the key itself.
constexpr const char* kMarkerField = ".internal.unique_id";
constexpr const char* kMarkerValue = "0";

bool mayExpire(const OBGui::KeyList& keys) {
  return std::any_of(keys.begin(), keys.end(),
                     [](const auto& key) { return key.valueName->ends_with(_UNTIL); });
}

bool isBelow(const std::string& path, const std::string& key) {
  return path.starts_with(key) && (path.size() == key.size() || path[key.size()] == '/');
}

class Prediction {
 public:
  void add(const OBGui::RegistryKeyInfo& key) {
    if (key.valueName->empty() || key.valueName->size() > lqregistry::kMaxNameBytes) return;
    if (isKey(key)) {
      const std::string path = absolutePath(subKeyPath(normalisedKeyPath(key.keyPath), key.valueName));
      if (isToBeRemoved(key)) {
        removeKey(path);
      } else if (isCreatableKey(key)) {
        const std::string made = absolutePath(subKeyPath(key.keyPath, key.valueName));
        addKeys(made);
        note(record(made, kMarkerField), packed(getKeyType(STRINGTYPE), kMarkerValue));
      }
      return;
    }
    const std::string path = absolutePath(key.keyPath);
    if (path.size() > lqregistry::kMaxPathBytes) return;
    if (isToBeRemoved(key)) return note(recordOf(key, path), std::nullopt);
    const std::string wanted = wantedValue(key);
    const bool isLost =
        isProtected(key) && !key.value->empty() &&
        (key.encryptedValue->isUnreadable() || (wanted.empty() && !key.encryptedValue->empty()));
    if (isLost) return;
    note(recordOf(key, path), packed(getKeyType(key.valueType), wanted));
  }

  PlaceList take() {
    std::erase_if(places_, [](const MemoryPlace& place) {
      return place.wasBefore(MemoryPlace::valueOf(place.wanted));
    });
    return std::move(places_);
  }

 private:
  static MemoryPlace record(const std::string& path, const std::string& name) {
    MemoryPlace place;
    place.path = path;
    place.name = name;
    return place;
  }
  static MemoryPlace recordOf(const OBGui::RegistryKeyInfo& key, const std::string& path) {
    MemoryPlace place = record(path, key.valueName);
    place.keyPath = key.keyPath.get();
    place.valueName = key.valueName.get();
    place.valueType = key.valueType.get();
    return place;
  }
  // A name cannot hold a NUL.
  static std::string idOf(const MemoryPlace& place) { return place.path.get() + '\0' + place.name.get(); }

  // The last record on a place decides; what was before is what the registry holds.
  void note(MemoryPlace place, const PlaceValue& wanted) {
    if (!places_.empty()) {
      if (const auto known = known_.find(idOf(place)); known != known_.end()) {
        MemoryPlace& earlier = places_[known->second];
        MemoryPlace::setTo(earlier.wanted, wanted);
        if (place.keyPath.isSet()) {
          earlier.keyPath = place.keyPath.get();
          earlier.valueName = place.valueName.get();
          earlier.valueType = place.valueType.get();
        }
        return;
      }
    }
    const PlaceValue now = readPlace(registry_, place.path, place.name);
    if (!now && registry_.getRegError() == kRegKeyMissing && wanted) addKeys(place.path);
    if (now == wanted) return;
    append(std::move(place), now, wanted);
  }

  void append(MemoryPlace place, const PlaceValue& now, const PlaceValue& wanted) {
    MemoryPlace::setTo(place.before, now);
    MemoryPlace::setTo(place.wanted, wanted);
    OBGui::RegistryKeyInfo asRecord;
    asRecord.keyPath = place.path.get();
    asRecord.valueName = place.name.get();
    if (!place.isKeyItself() && programs::isWayBack(asRecord)) place.isWayBack = 1;
    known_[idOf(place)] = places_.size();
    places_.push_back(std::move(place));
  }

  // The keys that will be made so that this one is there.
  void addKeys(const std::string& path) {
    for (std::size_t end = path.size(); end != std::string::npos && end != 0;
         end = path.rfind('/', end - 1)) {
      const std::string key = path.substr(0, end);
      if (!made_.insert(key).second) return;
      if (const auto known = known_.find(idOf(record(key, ""))); known != known_.end()) {
        MemoryPlace::setTo(places_[known->second].wanted, PlaceValue(""));
        continue;
      }
      if (readPlace(registry_, key, "")) return;
      append(record(key, ""), std::nullopt, PlaceValue(""));
    }
  }

  void removeKey(const std::string& path) {
    for (MemoryPlace& place : places_)
      if (isBelow(place.path, path)) place.wanted.clear();
    std::erase_if(made_, [&path](const std::string& key) { return isBelow(key, path); });
    std::vector<std::string> pending{path};
    while (!pending.empty()) {
      const std::string key = std::move(pending.back());
      pending.pop_back();
      std::list<std::string> below;
      std::map<std::string, std::string> values;
      if (!registry_.getSubKeys(key, below) || !registry_.getRegValues(key, values)) continue;
      if (!known_.contains(idOf(record(key, "")))) append(record(key, ""), PlaceValue(""), std::nullopt);
      for (const auto& [name, data] : values) {
        MemoryPlace place = record(key, name);
        place.keyPath = key;
        place.valueName = name;
        note(std::move(place), std::nullopt);
      }
      for (const std::string& name : below) pending.push_back(subKeyPath(key, name));
    }
  }

  LQPlatformInfo registry_;
  PlaceList places_;
  std::unordered_map<std::string, std::size_t> known_;  // positions in places_
  std::unordered_set<std::string> made_;                // keys that have been looked at
};

PlaceList predictMarked(const OBGui::KeyList& marked) {
  const lqregistry::ReadSnapshot still;
  Prediction prediction;
  for (const OBGui::RegistryKeyInfo& key : marked) prediction.add(key);
  return prediction.take();
}

}  // namespace

PlaceList predictChanges(const OBGui::KeyList& keys) {
  if (!mayExpire(keys)) return predictMarked(keys);
  OBGui::KeyList marked = keys;
  markExpired(marked);
  return predictMarked(marked);
}

}  // namespace host
