#include "lqhost/pass/batch_outcome.h"

#include <algorithm>
#include <map>
#include <utility>

#include "records/expiry.h"
#include "records/record_rules.h"

#include "lqregistry/LqSettings.h"

namespace host {

namespace {

// Longer values are cut: reports are for looking at, not for reading back.
constexpr std::size_t kShownValueBytes = 48;

bool isProtected(const OBGui::RegistryKeyInfo& key) {
  return key.valueType.get() == ENCRYPTEDTYPE;
}

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

std::string noteOf(const OBGui::RegistryKeyInfo& asReceived, const OBGui::RegistryKeyInfo& marked,
                   RecordFate fate) {
  if (asReceived.valueName->empty())
    return isToBeRemoved(marked) ? "a record without a name cannot be removed"
                                 : "a record without a name asks for nothing";
  if (fate == RecordFate::kReset) return "removed by the server, reset to its default";
  if (fate == RecordFate::kFailed) {
    if (isKey(asReceived) && !isToBeRemoved(marked)) return "keys may not be created remotely";
    return "see the log";
  }
  if (!isToBeRemoved(asReceived) && isToBeRemoved(marked)) return "expired";
  if (asReceived.enabledFlag == 0 && asReceived.deleteFlag != 1) return "disabled";
  return isProtected(asReceived) ? "protected" : "";
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
  std::map<std::pair<std::string, std::string>, std::size_t> lastOf;
  for (std::size_t i = 0; i < keys.size(); ++i)
    lastOf[{normalisedKeyPath(keys[i].keyPath), keys[i].valueName}] = i;
  std::vector<std::size_t> positions;
  positions.reserve(lastOf.size());
  for (const auto& [value, position] : lastOf) positions.push_back(position);
  std::sort(positions.begin(), positions.end());
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

std::vector<RecordOutcome> judgeBatch(const PassDetails& details) {
  OBGui::KeyList marked = details.batch;
  markExpired(marked);
  std::vector<RecordOutcome> outcomes;
  for (const std::size_t i : effectiveRecords(marked)) {
    const OBGui::RegistryKeyInfo& key = marked[i];
    const CurrentValue now = currentValue(key);
    RecordOutcome outcome;
    outcome.keyPath = normalisedKeyPath(key.keyPath);
    outcome.valueName = key.valueName;
    outcome.fate = judge(key, details.before[i], now);
    outcome.value = now ? shownValue(key, *now) : "";
    outcome.note = noteOf(details.batch[i], key, outcome.fate);
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

}  // namespace host
