#include "lqhost/pass/batch_outcome.h"

#include <algorithm>
#include <map>
#include <utility>

#include "records/key_records.h"

namespace host {

namespace {

constexpr const char* kMask = "********";
// Longer values are cut: reports are for looking at, not for reading back.
constexpr std::size_t kShownValueBytes = 48;
constexpr const char* kLogDirectoryValue = "dOBLOGDIR";

bool isProtected(const OBGui::RegistryKeyInfo& key) {
  return key.valueType.get() == ENCRYPTEDTYPE;
}

Outcome judge(const OBGui::RegistryKeyInfo& key, const HeldValue& before, const HeldValue& now) {
  if (key.valueName->empty()) return isToBeRemoved(key) ? Outcome::kFailed : Outcome::kLeft;
  if (!isAsWanted(key, now)) {
    const bool isLogDirectory = key.valueName.get() == kLogDirectoryValue && isToBeRemoved(key) && now;
    return isLogDirectory ? Outcome::kReset : Outcome::kFailed;
  }
  if (before == now) return Outcome::kLeft;
  if (!before) return Outcome::kAdded;
  return now ? Outcome::kChanged : Outcome::kRemoved;
}

std::string noteOf(const OBGui::RegistryKeyInfo& asReceived, const OBGui::RegistryKeyInfo& marked,
                   Outcome outcome) {
  if (asReceived.valueName->empty())
    return isToBeRemoved(marked) ? "a record without a name cannot be removed"
                                 : "a record without a name asks for nothing";
  if (outcome == Outcome::kReset) return "removed by the server, reset to its default";
  if (outcome == Outcome::kFailed) {
    if (asReceived.valueType.get() == KEYTYPE && !isToBeRemoved(marked))
      return "keys may not be created from afar";
    return "see the log";
  }
  if (!isToBeRemoved(asReceived) && isToBeRemoved(marked)) return "expired";
  if (asReceived.enabledFlag == 0 && asReceived.deleteFlag != 1) return "disabled";
  return isProtected(asReceived) ? "protected" : "";
}

}  // namespace

std::string wantedValue(const OBGui::RegistryKeyInfo& key) {
  if (key.valueType.get() == KEYTYPE || key.value->empty()) return {};
  return isProtected(key) ? key.encryptedValue->getV8Password() : key.value.get();
}

bool isAsWanted(const OBGui::RegistryKeyInfo& marked, const HeldValue& now) {
  return isToBeRemoved(marked) ? !now : now && *now == wantedValue(marked);
}

std::string shownValue(const OBGui::RegistryKeyInfo& key, const std::string& value) {
  if (isProtected(key)) return kMask;
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

const char* outcomeWord(Outcome outcome) {
  switch (outcome) {
    case Outcome::kAdded:
      return "added";
    case Outcome::kChanged:
      return "changed";
    case Outcome::kRemoved:
      return "removed";
    case Outcome::kLeft:
      return "left";
    case Outcome::kReset:
      return "reset";
    case Outcome::kFailed:
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
    const HeldValue now = heldValue(key);
    RecordOutcome outcome;
    outcome.keyPath = normalisedKeyPath(key.keyPath);
    outcome.valueName = key.valueName;
    outcome.outcome = judge(key, details.before[i], now);
    outcome.value = now ? shownValue(key, *now) : "";
    outcome.note = noteOf(details.batch[i], key, outcome.outcome);
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

}  // namespace host
