#include "host/batch_outcome.h"

#include <map>
#include <utility>

#include "registry_client/key_records.h"

namespace host {

namespace {

constexpr const char* kMask = "********";
constexpr const char* kLogDirectoryValue = "dOBLOGDIR";

bool isProtected(const OBGui::RegistryKeyInfo& key) {
  return key.valueType.get() == ENCRYPTEDTYPE;
}

// The data that the registry should hold for a record that is to be written.
std::string wantedValue(const OBGui::RegistryKeyInfo& key) {
  if (key.valueType.get() == KEYTYPE || key.value->empty()) return {};
  return isProtected(key) ? key.encryptedValue->getV8Password() : key.value.get();
}

Outcome judge(const OBGui::RegistryKeyInfo& key, const HeldValue& before, const HeldValue& now) {
  if (key.valueName->empty()) return isToBeRemoved(key) ? Outcome::kFailed : Outcome::kLeft;
  const bool isAsWanted = isToBeRemoved(key) ? !now : now && *now == wantedValue(key);
  if (!isAsWanted) {
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

std::vector<RecordOutcome> judgeBatch(const PassFacts& facts) {
  OBGui::KeyList marked = facts.batch;
  markExpired(marked);
  std::map<std::pair<std::string, std::string>, std::size_t> lastOf;
  for (std::size_t i = 0; i < marked.size(); ++i)
    lastOf[{normalisedKeyPath(marked[i].keyPath), marked[i].valueName}] = i;

  std::vector<RecordOutcome> outcomes;
  for (std::size_t i = 0; i < marked.size(); ++i) {
    const OBGui::RegistryKeyInfo& key = marked[i];
    if (lastOf[{normalisedKeyPath(key.keyPath), key.valueName}] != i) continue;
    const HeldValue now = heldValue(key);
    RecordOutcome outcome;
    outcome.keyPath = normalisedKeyPath(key.keyPath);
    outcome.valueName = key.valueName;
    outcome.outcome = judge(key, facts.before[i], now);
    outcome.value = now && isProtected(key) ? kMask : now.value_or("");
    outcome.note = noteOf(facts.batch[i], key, outcome.outcome);
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

}  // namespace host
