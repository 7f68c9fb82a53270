#include "lqhost/pass/registry_writes.h"

#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

std::string placeOf(const std::string& keyPath, const std::string& valueName) {
  std::string place = normalisedKeyPath(keyPath);
  return place.append(1, '\0').append(valueName);  // which no name holds
}

std::string writtenPlaceOf(const OBGui::RegistryKeyInfo& record) {
  if (!isKey(record)) return placeOf(record.keyPath, record.valueName);
  return placeOf(subKeyPath(normalisedKeyPath(record.keyPath), record.valueName), "");
}

WritesWatch::WritesWatch() : watch_([this](const lqregistry::WriteEvent& event) { onEvent(event); }) {}

void WritesWatch::onEvent(const lqregistry::WriteEvent& event) {
  const std::string name(event.name);
  if (event.fault == lqregistry::WriteFault::kNone) {
    const bool isShown = event.wasThere && !isSecretValue(name, event.before);
    std::optional<std::string> before;
    if (event.wasThere) before = isShown ? std::string(event.before) : std::string();
    writes_.changed.try_emplace(placeOf(std::string(event.key), name), std::move(before));
    return;
  }
  RegistryWrites::Failure failure{event.fault, std::string(event.reason)};
  if (event.key.empty() && name.empty()) {
    writes_.lost = std::move(failure);
  } else {
    writes_.failed.insert_or_assign(placeOf(std::string(event.key), name), std::move(failure));
  }
}

}  // namespace host
