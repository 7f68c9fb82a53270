// A machine as the server sees it: does with a batch what the product's client does with one, without a
// registry file, a cache file or a connection.
#pragma once

#include <algorithm>
#include <ctime>
#include <map>
#include <string>
#include <utility>

#include "lqregistry/LqSettings.h"
#include "lqregistry/OBGui.h"
#include "records/expiry.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

class SimulatedClient {
 public:
  static constexpr const char* kMarker = ".internal.unique_id";  // what makes a sub-key exist
  static constexpr const char* kDefaultLogs = "home/Log_Files";

  using Registry = std::map<std::pair<std::string, std::string>, std::string>;  // by key and value name
  Registry registry;
  OBGui::KeyList cache;

  // Applies a list, which is marked as the product marks it.
  void apply(OBGui::KeyList& keys, std::time_t now) {
    markExpired(keys, now);
    for (const OBGui::RegistryKeyInfo& key : keys) applyOne(key);
  }

  // Replaces the cache by an applied batch, unless that is shorter.
  void keep(const OBGui::KeyList& keys) {
    if (keys.size() < cache.size()) return;
    cache.clear();
    for (const OBGui::RegistryKeyInfo& key : keys) {
      if (key.deleteFlag != 1) {
        cache.push_back(key);
      } else if (key.valueName.get() == lqsettings::kLogDirectory.name) {
        registry[{keyAt(key.keyPath), key.valueName}] = kDefaultLogs;
      }
    }
  }

  // Applies the cache again.
  void refresh(std::time_t now) {
    apply(cache, now);
    std::erase_if(cache, [](const OBGui::RegistryKeyInfo& key) { return key.deleteFlag == 1; });
  }

  static std::string valueIn(const OBGui::RegistryKeyInfo& key) {
    return isProtected(key) ? "secret " + std::string(key.encryptedValue->reveal()) : key.value.get();
  }

  // A path as the registry takes it.
  static std::string keyAt(const std::string& path) {
    std::string key;
    std::string rest = normalisedKeyPath(path);
    if (rest.front() == '~') rest.insert(1, "/");
    for (std::size_t at = 0; at < rest.size();) {
      const std::size_t end = std::min(rest.find('/', at), rest.size());
      if (end != at) key += (key.empty() ? "" : "/") + rest.substr(at, end - at);
      at = end + 1;
    }
    return key;
  }

 private:
  void applyOne(const OBGui::RegistryKeyInfo& key) {
    const std::string name = key.valueName;
    if (!isKey(key)) {
      if (isToBeRemoved(key)) {
        registry.erase({keyAt(key.keyPath), name});
      } else {
        registry[{keyAt(key.keyPath), name}] = valueIn(key);
      }
      return;
    }
    const std::string subKey = keyAt(subKeyPath(key.keyPath, name));
    if (!isToBeRemoved(key)) {
      registry[{subKey, kMarker}] = "0";
      return;
    }
    std::erase_if(registry, [&subKey](const auto& value) {
      return (value.first.first + "/").starts_with(subKey + "/");
    });
  }
};
