#include "lqhost/pass/batch_outcome.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "lqhost/pass/failure_reason.h"
#include "records/expiry.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

#include "lqregistry/LqSettings.h"

namespace host {

namespace {

// Longer values are cut: reports are for looking at, not for reading back.
constexpr std::size_t kShownValueBytes = 48;

RecordFate judge(const OBGui::RegistryKeyInfo& key, const CurrentValue& before, const CurrentValue& now) {
  if (key.valueName->empty()) return isToBeRemoved(key) ? RecordFate::kFailed : RecordFate::kLeft;
  if (!isAsWanted(key, now)) {
    const bool isLogDirectory =
        key.valueName.get() == lqsettings::kLogDirectory.name && isToBeRemoved(key) && now;
    return isLogDirectory ? RecordFate::kReset : RecordFate::kFailed;
  }
  if (before == now) return RecordFate::kLeft;
  if (!before) return RecordFate::kAdded;
  return now ? RecordFate::kChanged : RecordFate::kRemoved;
}

// `receivedFlag` is the record's deleteFlag as it came, before expiry was marked.
std::string noteOf(const OBGui::RegistryKeyInfo& key, std::int64_t receivedFlag, RecordFate fate,
                   const RegistryWrites& writes) {
  if (key.valueName->empty() && !isToBeRemoved(key)) return "a record without a name asks for nothing";
  if (fate == RecordFate::kReset) return "removed by the server, reset to its default";
  if (fate == RecordFate::kFailed) return whyFailed(key, writes).text;
  if (key.deleteFlag != receivedFlag && key.enabledFlag != 0) return "expired";
  if (key.enabledFlag == 0 && receivedFlag != 1) return "disabled";
  return isProtected(key) ? "protected" : "";
}

}  // namespace

std::string wantedValue(const OBGui::RegistryKeyInfo& key) {
  if (isKey(key) || key.value->empty()) return {};
  return isProtected(key) ? key.encryptedValue->getV8Password() : key.value.get();
}

bool isAsWanted(const OBGui::RegistryKeyInfo& marked, const CurrentValue& now) {
  return isToBeRemoved(marked) ? !now : now && *now == wantedValue(marked);
}

std::string shownValue(const OBGui::RegistryKeyInfo& key, const std::string& value) {
  if (isProtected(key)) return kHiddenSecret;
  return value.size() <= kShownValueBytes ? value : value.substr(0, kShownValueBytes) + "...";
}

std::vector<std::size_t> effectiveRecords(const OBGui::KeyList& keys) {
  std::unordered_set<std::string> later;
  later.reserve(keys.size());
  std::vector<std::size_t> positions;
  positions.reserve(keys.size());
  for (std::size_t i = keys.size(); i-- > 0;) {
    std::string place = normalisedKeyPath(keys[i].keyPath);
    place.append(1, '\0').append(keys[i].valueName.get());  // which no name holds
    if (later.insert(std::move(place)).second) positions.push_back(i);
  }
  std::reverse(positions.begin(), positions.end());
  return positions;
}

const char* fateWord(RecordFate fate) {
  switch (fate) {
    case RecordFate::kAdded:
      return "added";
    case RecordFate::kChanged:
      return "changed";
    case RecordFate::kRemoved:
      return "removed";
    case RecordFate::kLeft:
      return "left";
    case RecordFate::kReset:
      return "reset";
    case RecordFate::kFailed:
      break;
  }
  return "failed";
}

std::vector<RecordOutcome> judgeBatch(PassDetails details) {
  OBGui::KeyList& marked = details.batch;
  std::vector<std::int64_t> receivedFlags;
  receivedFlags.reserve(marked.size());
  for (const OBGui::RegistryKeyInfo& key : marked) receivedFlags.push_back(key.deleteFlag);
  markExpired(marked);
  const std::vector<CurrentValue> held = currentValues(marked);
  std::vector<RecordOutcome> outcomes;
  outcomes.reserve(marked.size());
  for (const std::size_t i : effectiveRecords(marked)) {
    const OBGui::RegistryKeyInfo& key = marked[i];
    RecordOutcome outcome;
    outcome.keyPath = normalisedKeyPath(key.keyPath);
    outcome.valueName = key.valueName;
    outcome.fate = judge(key, details.before[i], held[i]);
    outcome.value = held[i] ? shownValue(key, *held[i]) : "";
    outcome.note = noteOf(key, receivedFlags[i], outcome.fate, details.writes);
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

}  // namespace host
