// What became of each record of a batch: judged by what the registry holds now, not by what anybody says.
#pragma once

#include <string>
#include <vector>

#include "lqhost/pass/pass_watch.h"

namespace host {

// Whether the registry holds what the record asks for; `marked` has been through markExpired.
bool isAsWanted(const OBGui::RegistryKeyInfo& marked, const CurrentValue& now);

// A value for people: cut when it is long, masked when the record's type says that it is protected.
std::string shownValue(const OBGui::RegistryKeyInfo& key, const std::string& value);

// What the registry should hold for a record that is to be written.
std::string wantedValue(const OBGui::RegistryKeyInfo& key);

// Positions of the records that count, in order: where a list names a value twice, the last one does.
std::vector<std::size_t> effectiveRecords(const OBGui::KeyList& keys);

enum class RecordFate { kAdded, kChanged, kRemoved, kLeft, kReset, kFailed };

const char* fateWord(RecordFate fate);

struct RecordOutcome {
  std::string keyPath;
  std::string valueName;
  RecordFate fate = RecordFate::kLeft;
  std::string value;  // what the registry holds now, as shownValue gives it; empty when there is none
  std::string note;   // why, where it is not plain
};

// One line for each value that the batch names, in order; where it names one twice, the last record counts.
std::vector<RecordOutcome> judgeBatch(PassDetails details);

}  // namespace host
