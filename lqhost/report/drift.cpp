#include "lqhost/report/drift.h"

#include "lqhost/pass/batch_outcome.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

namespace {

// A text carries no NUL.
std::string asText(const std::string& value) {
  return value.substr(0, value.find('\0'));
}

HostReport::Drift driftOf(const OBGui::RegistryKeyInfo& record, const CurrentValue& before,
                          std::int64_t now) {
  HostReport::Drift drift;
  drift.keyPath = normalisedKeyPath(record.keyPath);
  drift.valueName = record.valueName.get();
  drift.time = now;
  const std::string wanted = isToBeRemoved(record) ? std::string() : wantedValue(record);
  if (isSecret(record) || isSecretValue(record.valueName.get(), wanted) ||
      isSecretValue(record.valueName.get(), before.value_or(""))) {
    drift.isSecret = 1;
    return drift;
  }
  if (before) drift.before = asText(*before);
  if (!isToBeRemoved(record)) drift.after = asText(wanted);
  return drift;
}

}  // namespace

HostReport::DriftList driftOf(const RegistryWrites& writes, const CacheBefore& before, std::int64_t now) {
  if (writes.changed.empty() || writes.lost) return {};
  OBGui::KeyList corrected;
  std::vector<CurrentValue> found;
  const OBGui::KeyList cached = before.records();
  for (const std::size_t i : effectiveRecords(cached)) {
    const auto change = writes.changed.find(writtenPlaceOf(cached[i]));
    if (change == writes.changed.end() || cached[i].valueName->empty()) continue;
    if (isAsWanted(cached[i], change->second)) continue;  // of another type only
    corrected.push_back(cached[i]);
    found.push_back(change->second);
  }
  HostReport::DriftList drifts;
  const std::vector<CurrentValue> held = currentValues(corrected);
  for (std::size_t i = 0; i < corrected.size(); ++i)
    if (isAsWanted(corrected[i], held[i])) drifts.push_back(driftOf(corrected[i], found[i], now));
  return drifts;
}

}  // namespace host
